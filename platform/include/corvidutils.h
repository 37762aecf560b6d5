/* The device's daemon utilities: the single-instance guard. */
#ifndef NYX_PLATFORM_CORVIDUTILS_H
#define NYX_PLATFORM_CORVIDUTILS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the single-instance lock on lockFile and writes the caller's pid into
 * it. Returns a non-negative token on success and a negative value when
 * another process holds the lock or the file cannot be opened. */
int corvid_daemon_checksingleton(const char* lockFile);

/* Releases the lock taken with the token that corvid_daemon_checksingleton
 * returned and removes the file. */
void corvid_daemon_cleansingleton(const char* lockFile, int token);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_CORVIDUTILS_H */
