/* The device's curl extras: the TLS-context callback that adds the device's
 * trust anchors and certificate-revocation checking to a transfer. */
#ifndef NYX_PLATFORM_CURL_EXTRAS_H
#define NYX_PLATFORM_CURL_EXTRAS_H

#include <curl/curl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A callback for CURLOPT_SSL_CTX_FUNCTION; it needs no CURLOPT_SSL_CTX_DATA. */
curl_ssl_ctx_callback getRevocationSslCxtCb(void);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_CURL_EXTRAS_H */
