/* Platform notifications from the device's services to an SNMP agent. */
#ifndef PLATFORM_NOTIF_H
#define PLATFORM_NOTIF_H

#include <stddef.h>
#include <stdint.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/types.h>
#include "cmi.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Called on the agent's thread for each notification message. The handler may fill
 * `notif_oid` (room for MAX_OID_LEN arcs) and *notif_oid_len and set *send to 1; the
 * platform then sends an SNMPv2 notification with snmpTrapOID.0 = notif_oid followed by
 * the returned bindings, and frees the list.
 */
typedef netsnmp_variable_list *(*notif_handler_t)(mts_msg_t *msg, oid *notif_oid,
                                                  size_t *notif_oid_len, int *send);

/* 0 on success. A second registration of an id replaces the first. */
int register_for_notification(uint32_t id, notif_handler_t handler);
/* 0 on success, -1 when nothing was registered for the id. */
int unregister_for_notification(uint32_t id);

#ifdef __cplusplus
}
#endif

#endif
