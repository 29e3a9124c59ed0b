#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

oid callhome_mib_variables_oid[CALLHOME_MIB_ROOT_LEN] = {1, 3, 6, 1, 4, 1, 32473, 9, 300};
struct variable7 callhome_mib_variables[CALLHOME_MIB_VARIABLE_COUNT];
char *HHMM_buf;
indxobj_t *callHomeDestEmailAddressEntry_undo_list;
indxobj_t *callHomeDestEmailAddressEntry_list;
indxobj_t *callHomeDestProfileEntry_list;
indxobj_t *callHomeDestProfileEntry_undo_list;
indxobj_t *callHomeUserDefCliCmd_list;
indxobj_t *callHomeUserDefCliCmd_undo_list;
void init_callhome_mib(void) {}
void deinit_callhome_mib(void) {}
u_char * get_callhome_mib(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) { return nullptr; }
char * to_HHMM_string(long) { return nullptr; }
}
