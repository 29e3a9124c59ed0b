/* Texts of platform status codes, and error logging. */
#ifndef PLATFORM_SYSERR_H
#define PLATFORM_SYSERR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Text of a known status code, or null when the code is unknown. */
const char *syserr2str(uint32_t code);
/*
 * Always a text: the text of a known status, the errno text for small positive values, and
 * "unknown error 0x%08x" otherwise. The buffer is static and overwritten by the next call.
 */
const char *syserr_format(uint32_t status);

/* Records a failed write to a service; `code` identifies the record kind (472). */
void log_set_error(int32_t status, int code);

/*
 * Logs an SNMP error record: 260 reserved bytes, the status (host order) at byte 260, the
 * NUL-terminated text at byte 264 (at most 208 bytes).
 */
void log_snmp_error(const void *record);

#ifdef __cplusplus
}
#endif

#endif
