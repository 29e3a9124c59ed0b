/* The SNMP request being processed by the agent. */
#ifndef PLATFORM_SNMP_CTX_H
#define PLATFORM_SNMP_CTX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Security name (v3) or community (v1/v2c) of the current request; "" outside a request. */
const char *get_snmp_username(int unused);
/* Request id of the current PDU; 0 outside a request. */
uint32_t get_snmp_sessionid(int unused);

#ifdef __cplusplus
}
#endif

#endif
