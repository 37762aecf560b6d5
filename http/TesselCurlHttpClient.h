// The device's transport: the curl transport plus, for every attempt, the
// proxy of the active network interface and the device's TLS-context
// callback (its trust anchors and certificate-revocation checking).
#ifndef NYX_HTTP_TESSEL_CURL_HTTP_CLIENT_H
#define NYX_HTTP_TESSEL_CURL_HTTP_CLIENT_H

#include "http/CurlHttpClient.h"

class TesselCurlHttpClient : public CurlHttpClient {
 public:
  ~TesselCurlHttpClient() override;

 protected:
  void configureHandle(CURL* handle) override;
};

#endif  // NYX_HTTP_TESSEL_CURL_HTTP_CLIENT_H
