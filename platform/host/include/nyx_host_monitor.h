/* Host-only view of the daemon monitor, for tests. */
#ifndef NYX_PLATFORM_HOST_MONITOR_H
#define NYX_PLATFORM_HOST_MONITOR_H

#ifdef __cplusplus
extern "C" {
#endif

/* The current number of activities: 1 after initialize, then changed by
 * incrementProcessActivity and decrementProcessActivity. 0 before
 * initialize. */
int nyx_host_monitor_activity_count(void);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_HOST_MONITOR_H */
