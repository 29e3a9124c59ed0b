#include "callhome_mib.h"

// Placeholder definitions; replaced by the real implementation.
extern "C" {

cmi_email_conf_t callhome_email_conf;
u_char * get_using_cmi(int, void *, uint32_t, size_t *, int) { return nullptr; }
long get_periodic_inventory_info(callhome_periodic_inventory_t *, int, int) { return 0; }
int to_snmp_error_code(int) { return 0; }
void callHomeDestProfileEntry_hton(callHomeDestProfileEntry_t *) {}
void callHomeDestProfileEntry_ntoh(callHomeDestProfileEntry_t *) {}
void callHomeDestEmailAddressEntry_hton(callHomeDestEmailAddressEntry_t *) {}
void callHomeDestEmailAddressEntry_ntoh(callHomeDestEmailAddressEntry_t *) {}
void callHomeAlertGroupEntry_hton(callHomeAlertGroupEntry_t *) {}
void callHomeAlertGroupEntry_ntoh(callHomeAlertGroupEntry_t *) {}
void callHomeEmailConf_hton(cmi_email_conf_t *) {}
void callHomeEmailConf_ntoh(cmi_email_conf_t *) {}
void callhome_alertgroup_type_hton(callhome_alertgroup_type_t *) {}
void callhome_alertgroup_type_ntoh(callhome_alertgroup_type_t *) {}
void cmi_userdef_cli_cmd_hton(cmi_userdef_cli_cmd_t *) {}
void cmi_userdef_cli_cmd_ntoh(cmi_userdef_cli_cmd_t *) {}
void callHomeDestProfileEntry_defaults(callHomeDestProfileEntry_t *) {}
void callHomeDestEmailAddressEntry_defaults(callHomeDestEmailAddressEntry_t *) {}
int callHomeDestProfileEntry_comp(const void *, const void *) { return 0; }
int callHomeDestEmailAddressEntry_comp(const void *, const void *) { return 0; }
int callHomeUserDefCliCmdEntry_comp(const void *, const void *) { return 0; }
}
