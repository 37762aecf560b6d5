// What every request to the messaging server shares: the server's URL from
// the dynamic configuration, the JSON accept header, the reason in
// "x-zvo-reason" and the retry limit. The fetch, registration and
// unregistration builders start from here.
#ifndef NYX_HTTP_SERVER_REQUEST_H
#define NYX_HTTP_SERVER_REQUEST_H

#include <string>

#include "http/RequestMethod.h"
#include "http/WebRequest.h"

// The URL configured under configKey, read anew at every call so that a
// configuration change needs no restart. Throws std::runtime_error "Failed
// to get device messaging URL from dynconfig." when the key has no value.
std::string configuredServerUrl(const char* configKey);

// A request to url with method, "accept: application/json", the reason in
// "x-zvo-reason" and 3 retries; unsigned and without a body.
WebRequest newServerRequest(const std::string& url, const RequestMethod& method,
                            const std::string& reason);

#endif  // NYX_HTTP_SERVER_REQUEST_H
