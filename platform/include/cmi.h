/* Request channel to the device's services: one synchronous request at a time. */
#ifndef PLATFORM_CMI_H
#define PLATFORM_CMI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A platform message handed to notification handlers (see notif.h). */
typedef struct mts_msg mts_msg_t;

/* Handle of the caller's response queue; passed through to cmi_req_resp. */
extern int mts_response_q;

/*
 * Sends `request` (*length bytes) with `opcode` and `msg_type` and waits at most `wait`
 * seconds for the answer. Returns 0 or the service's status; -1 with errno set when no
 * status could be had (ETIME on a time-out, the connection's errno when the service is
 * unreachable, EPROTO for a malformed answer). When `response` is not null, *response
 * receives a malloc'ed copy of the answer record (owned by the caller, null when the
 * answer carried none) and *length its size. A null `response` asks for no record.
 * `user` may be null.
 */
int cmi_req_resp(int opcode, int msg_type, const void *request, void **response, uint32_t *length,
                 const char *user, uint32_t session, int client, int queue, int wait);

/* Text name of an opcode ("CALLHOME_INFO_OPC"), or its number as text when unknown. */
const char *mts_opc_name_get(int opcode);

/*
 * Payload of a notification message. The payload is followed by at least one NUL byte and
 * is never shorter than 8 bytes (zero-filled), so fixed headers can be read safely.
 */
void *mts_payload_get(mts_msg_t *msg);

/* Length of the payload as sent. */
uint32_t mts_payload_len_get(mts_msg_t *msg);

#ifdef __cplusplus
}
#endif

#endif
