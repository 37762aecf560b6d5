// Adds the device's authentication headers for one customer to a request.
//
// Request builders call sign() as their last step, once URL, method and body
// are final. Used on the worker thread.
#ifndef NYX_HTTP_REQUEST_SIGNER_H
#define NYX_HTTP_REQUEST_SIGNER_H

#include <cstddef>
#include <string>

#include "http/WebRequest.h"

class RequestSigner {
 public:
  virtual ~RequestSigner();

  // The customer identifier this signer signs for; empty when the device has
  // no signed-in customer.
  virtual const std::string& getDirectedId() const = 0;

  // Adds the authentication headers, overwriting headers of the same name in
  // any letter case. Throws std::runtime_error and adds nothing on failure.
  virtual void sign(WebRequest& request) = 0;

  // The signed digest of the payload; throws std::runtime_error on failure.
  virtual std::string signPayload(const unsigned char* payload, size_t length) = 0;
};

#endif  // NYX_HTTP_REQUEST_SIGNER_H
