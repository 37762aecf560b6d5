/* The device's daemon monitor: it watches that daemons are alive and counts
 * the work they have in hand. */
#ifndef NYX_PLATFORM_DAEMON_MONITOR_H
#define NYX_PLATFORM_DAEMON_MONITOR_H

#ifdef __cplusplus
extern "C" {
#endif

/* Announces the daemon; the daemon counts as busy (one activity) from here
 * until its first decrementProcessActivity. */
int initialize(const char* daemonName, int checkIntervalSeconds);
int incrementProcessActivity(void);
int decrementProcessActivity(void);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_DAEMON_MONITOR_H */
