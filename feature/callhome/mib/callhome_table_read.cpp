#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

callHomeDestProfileEntry_t callHomeDestProfileEntry;
callHomeDestEmailAddressEntry_t callHomeDestEmailAddressEntry;
callHomeAlertGroupEntry_t callHomeAlertGroupEntry;
mibAlertGroup_t mibAlertGroup;
callhome_alertgroup_type_t alertgroup_type;
callHomeUserDefCliCmdEntry_t callHomeUserDefCliCmdEntry;
u_char * get_callHomeDestProfileTable(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) { return nullptr; }
u_char * get_callHomeDestEmailAddressTable(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) { return nullptr; }
u_char * get_callHomeAlertGroupTypeTable(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) { return nullptr; }
u_char * get_callHomeUserDefCmdTable(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) { return nullptr; }
int header_callHomeDestProfileEntry(oid *, size_t, oid *, size_t *, int, callHomeDestProfileEntry_t *, int) { return 0; }
int get_callHomeDestProfileEntry_instance(oid *, size_t, oid *, size_t *, int, callHomeDestProfileEntry_t *) { return 0; }
int header_callHomeDestEmailAddressEntry(oid *, size_t, oid *, size_t *, int, callHomeDestEmailAddressEntry_t *, int) { return 0; }
int get_callHomeDestEmailAddressEntry_instance(oid *, size_t, oid *, size_t *, int, callHomeDestEmailAddressEntry_t *) { return 0; }
int header_callhome_alertgroups(oid *, size_t, oid *, size_t *, int, mibAlertGroup_t *, int) { return 0; }
int get_callhome_alertgroups_instance(oid *, size_t, oid *, size_t *, int, callHomeAlertGroupEntry_t *, int) { return 0; }
int header_callHomeAlertGroupType(oid *, size_t, oid *, size_t *, int, callhome_alertgroup_type_t *) { return 0; }
int get_callHomeAlertGroupType_instance(oid *, size_t, oid *, size_t *, int, callhome_alertgroup_type_t *) { return 0; }
int header_callHomeUserDefCliCmdEntry(oid *, size_t, oid *, size_t *, int, callHomeUserDefCliCmdEntry_t *, int) { return 0; }
int get_callHomeUserDefCliCmd_instance(oid *, size_t, oid *, size_t *, int, callHomeUserDefCliCmdEntry_t *) { return 0; }
}
