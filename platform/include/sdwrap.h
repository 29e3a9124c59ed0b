/* Trace facility: an always-on event history and optional debug output. */
#ifndef PLATFORM_SDWRAP_H
#define PLATFORM_SDWRAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 0 when events of this subtype and level are recorded in the history. */
int sdwrap_hist_event_subtype_check(uint32_t subtype, int level);
/* Records `length` bytes of `record` (a u32 level, then the text) in the history. */
void sdwrap_hist_event(uint32_t subtype, uint32_t length, const void *record);
/* Non-zero when debug output is on for this level. */
int sdwrap_chk_int(int level, int a, int b, int c);
/* Debug output, through the agent's log. */
void buginf(int flag, const char *modname, int unused, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* Name under which this process's debug output is shown. */
extern const char *sdwrap_dbg_modname;

#ifdef __cplusplus
}
#endif

#endif
