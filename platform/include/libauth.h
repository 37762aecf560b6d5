/* The device authentication library: the active customer and the device's
 * request-signing credentials. */
#ifndef NYX_PLATFORM_LIBAUTH_H
#define NYX_PLATFORM_LIBAUTH_H

#include <glib.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The signed-in customer's identifier as a malloc'ed string (release with
 * free), or NULL when no customer is signed in. */
char* libauth_getActiveCustomerID(void);

/* The path, query and fragment of an absolute URL as a malloc'ed string
 * (release with free); "/" is put in front of a query that has no path.
 * NULL when url is not an absolute URL. */
char* libauth_getPathQueryFragmentFromURL(const char* url);

/* Computes the authentication headers of one request. On success returns 0
 * and stores in *headers a new table of char* header name to char* value
 * (release with g_hash_table_destroy). directedId may be NULL. */
int libauth_getProxyHeaders(GHashTable** headers, const char* pathQueryFragment, const char* method,
                            const char* body, size_t bodyLength, const char* directedId);

/* The lower-case hex HMAC-SHA256 of the payload under the device secret, as
 * a string allocated with new[] (release with delete[]), or NULL when the
 * device has no secret. */
char* libauth_getSignedDigest(const unsigned char* payload, size_t payloadLength,
                              const char* directedId);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_LIBAUTH_H */
