#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

callhome_snmp_error_t callhome_snmp_error;
void oid_to_string(const oid *, char *, int, int) {}
void string_to_oid(const char *, oid *, int, int) {}
void set_table_set_methods(int, WriteMethod **) {}
void callhome_trace(int, const char *, ...) {}
const char *callhome_status_text(int) { return ""; }
void callhome_report_error(int) {}
}
