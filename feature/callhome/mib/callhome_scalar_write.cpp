#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

int set_Scalar(int, uint32_t, void *, int) { return 0; }
int setTableObjects(int, void *, uint32_t) { return 0; }
int set_sysContactPhoneNumber(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_sysContactEmailAddress(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_sysStreetAddress(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeCustomerId(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeContractId(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeSiteId(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeEmailFrom(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeEmailReplyTo(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeEmailMsgDispNotification(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeEnable(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDeviceServicePriority(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeAlertAction(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_MsgThrottlingEnable(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeSmtpServerAddrType(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeSmtpServerAddr(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeSmtpServerPort(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_PeriodicSwInventoryMsgEnable(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_PeriodicSwInventoryTimeFrame(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_PeriodicSwInventoryTimeOfDay(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
}
