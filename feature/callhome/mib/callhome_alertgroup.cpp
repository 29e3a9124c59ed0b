#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

callhome_alertgroup_type_t alertgroup_types[CALLHOME_MAX_ALERTGROUP_TYPES];
uint32_t alertgroup_type_count;
void get_all_alertgroup_types(void) {}
void set_mib_var_alertgroup(void *, const char *) {}
int is_all_alertgroup_types_set(const void *) { return 0; }
int is_all_alertgroup_types_reset(const void *) { return 0; }
int get_alertgroup_type_index(int, const char *) { return 0; }
netsnmp_variable_list * handle_alertgroup_added_notif(mts_msg_t *, oid *, size_t *, int *) { return nullptr; }
netsnmp_variable_list * handle_alertgroup_deleted_notif(mts_msg_t *, oid *, size_t *, int *) { return nullptr; }
}
