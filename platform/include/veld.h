/* State of the configuration distribution service, kept locally by the platform. */
#ifndef PLATFORM_VELD_H
#define PLATFORM_VELD_H

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when distribution is enabled for the named feature. */
int is_veld_enabled(const char *feature);
/* The distribution show-run mode of the named feature (0 when never set). */
int get_veld_show_run_mode(const char *feature);

#ifdef __cplusplus
}
#endif

#endif
