/* The device's dynamic configuration service. */
#ifndef NYX_PLATFORM_DYNCONFIG_H
#define NYX_PLATFORM_DYNCONFIG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Looks up key. On success returns 0 and stores a malloc'ed copy of the value
 * in *value, which the caller releases with free. Returns non-zero and leaves
 * *value untouched when the key has no value. */
int getDynamicConfigValue(const char* key, char** value);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_DYNCONFIG_H */
