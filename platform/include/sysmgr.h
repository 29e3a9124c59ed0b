/* Process monitor. */
#ifndef PLATFORM_SYSMGR_H
#define PLATFORM_SYSMGR_H

#ifdef __cplusplus
extern "C" {
#endif

/* 1 before a blocking request, 0 after it. */
void sysmgr_heartbeat(int busy);

#ifdef __cplusplus
}
#endif

#endif
