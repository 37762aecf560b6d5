#include "http/TesselCurlHttpClient.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "conn.h"
#include "curl_extras.h"
#include "daemon/common/COwners.h"

namespace {

void freeProxyData(ConProxyData* data) {
  free(data->host);
  free(data->port);
  free(data->reserved);
  free(data);
}

// "host:port" of the proxy the active interface requires, or "" for a
// direct connection. Looked up for every attempt, so a change of network
// between retries takes effect at the next attempt.
std::string activeProxy() {
  if (ConActiveInterface() != CON_INTERFACE_PROXIED) {
    return "";
  }
  COwner<ConProxyData, freeProxyData> data(ConGetNetworkProxy());
  if (!data || data->host == nullptr || data->port == nullptr) {
    return "";
  }
  return std::string(data->host) + ":" + data->port;
}

#if NYX_PLATFORM_DEVICE
// A long option of the device's own libcurl build; standard libcurl does not
// know the number and would refuse it.
const CURLoption kDeviceLongOption283 = static_cast<CURLoption>(283);
#endif

}  // namespace

TesselCurlHttpClient::~TesselCurlHttpClient() = default;

void TesselCurlHttpClient::configureHandle(CURL* handle) {
  CurlHttpClient::configureHandle(handle);
  const std::string proxy = activeProxy();
  if (!proxy.empty()) {
    check(curl_easy_setopt(handle, CURLOPT_PROXY, proxy.c_str()));
  }
  // The callback adds the device's trust anchors and revocation checking to
  // each TLS context; it needs no data of its own.
  check(curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, getRevocationSslCxtCb()));
#if NYX_PLATFORM_DEVICE
  check(curl_easy_setopt(handle, kDeviceLongOption283, 1L));
#else
  // On a development machine the callback installs the host platform's one
  // parsed trust store (the system's anchors, tls/ca.pem and tls/crl.pem)
  // into every TLS context. Without these two, curl would first parse the
  // whole system bundle again for every handle, about 27 ms of CPU per
  // request, only for the callback to replace it. Peer and host name are
  // still verified against the callback's store.
  check(curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr));
  check(curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr));
#endif
}
