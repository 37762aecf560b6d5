// What every request to the messaging server shares: the server's URL from
// the dynamic configuration, the JSON headers, the reason in "x-zvo-reason",
// the retry limit and the signature. The fetch, registration and
// unregistration builders add only their URL's key and their body.
#ifndef NYX_HTTP_SERVER_REQUEST_H
#define NYX_HTTP_SERVER_REQUEST_H

#include <string>

#include "http/RequestMethod.h"
#include "http/RequestSigner.h"
#include "http/WebRequest.h"

// The URL configured under configKey, read anew at every call so that a
// configuration change needs no restart. Throws std::runtime_error "Failed
// to get device messaging URL from dynconfig." when the key has no value.
std::string configuredServerUrl(const char* configKey);

// A request to url with method, "accept: application/json", the reason in
// "x-zvo-reason", 3 retries and, when jsonBody is not empty, that body with
// "content-type: application/json"; signed by signer last, so nothing signed
// changes after it.
WebRequest signedServerRequest(const std::string& url, const RequestMethod& method,
                               const std::string& reason, const std::string& jsonBody,
                               RequestSigner& signer);

#endif  // NYX_HTTP_SERVER_REQUEST_H
