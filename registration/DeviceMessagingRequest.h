// The part that registration and unregistration requests share: the
// server's URL from the dynamic configuration, the method, the headers and
// the retry limit. Internal to the request builders.
#ifndef NYX_REGISTRATION_DEVICE_MESSAGING_REQUEST_H
#define NYX_REGISTRATION_DEVICE_MESSAGING_REQUEST_H

#include <string>

#include "http/WebRequest.h"
#include "registration/NYXRegistrationValues.h"

// A POST to the URL configured under configKey, read anew at every call so
// that a configuration change needs no restart, with the JSON headers, the
// reason in "x-zvo-reason" and 3 retries. Throws std::runtime_error "Failed
// to get device messaging URL from dynconfig." when the key has no value.
WebRequest newDeviceMessagingRequest(const char* configKey, const NYXRegistrationReason& reason);

#endif  // NYX_REGISTRATION_DEVICE_MESSAGING_REQUEST_H
