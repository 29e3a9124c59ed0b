#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

int set_callHomeDestProfileMsgFormat(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestProfileMaxMsgSize(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestProfileTrnsprtMthd(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestProfileStatus(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestProfileMsgLevel(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestEmailAddress(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeDestEmailAddressStatus(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeUserDefCliCmd(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callHomeUserDefCliCmdStatus(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int set_callhome_alertgroups(int, u_char *, u_char, size_t, u_char *, oid *, size_t) { return 0; }
int update_cmi_alertGroups(int, callHomeAlertGroupEntry_t *) { return 0; }
}
