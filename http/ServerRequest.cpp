#include "http/ServerRequest.h"

#include <stdexcept>

#include "daemon/common/COwners.h"
#include "dynconfig.h"

std::string configuredServerUrl(const char* configKey) {
  char* rawUrl = nullptr;
  const int status = getDynamicConfigValue(configKey, &rawUrl);
  MallocString url(rawUrl);
  if (status != 0 || url == nullptr) {
    throw std::runtime_error("Failed to get device messaging URL from dynconfig.");
  }
  return std::string(url.get());
}

WebRequest signedServerRequest(const std::string& url, const RequestMethod& method,
                               const std::string& reason, const std::string& jsonBody,
                               RequestSigner& signer) {
  WebRequest request;
  request.setUrl(url);
  request.setMethod(method);
  request.setHeader("accept", "application/json");
  if (!jsonBody.empty()) {
    request.setHeader("content-type", "application/json");
    request.setBody(jsonBody);
  }
  request.setHeader("x-zvo-reason", reason);
  request.setMaxRetries(3);
  signer.sign(request);
  return request;
}
