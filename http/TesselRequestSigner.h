// Signs requests with the device authentication library for one customer.
#ifndef NYX_HTTP_TESSEL_REQUEST_SIGNER_H
#define NYX_HTTP_TESSEL_REQUEST_SIGNER_H

#include <memory>
#include <string>

#include "http/RequestSigner.h"

class TesselRequestSigner : public RequestSigner {
 public:
  // directedId may be empty: the device has no signed-in customer.
  explicit TesselRequestSigner(const std::string& directedId);
  ~TesselRequestSigner() override;
  TesselRequestSigner(const TesselRequestSigner&) = delete;
  TesselRequestSigner& operator=(const TesselRequestSigner&) = delete;

  const std::string& getDirectedId() const override;
  // Throws "Request Signing Failure. StatusCode: N DirectedId: id".
  void sign(WebRequest& request) override;
  // Throws "Payload Signing Failure. DirectedId: id".
  std::string signPayload(const unsigned char* payload, size_t length) override;

 private:
  std::unique_ptr<const std::string> directedId_;
};

#endif  // NYX_HTTP_TESSEL_REQUEST_SIGNER_H
