#include "http/ServerRequest.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "dynconfig.h"

std::string configuredServerUrl(const char* configKey) {
  char* rawUrl = nullptr;
  const int status = getDynamicConfigValue(configKey, &rawUrl);
  std::unique_ptr<char, decltype(&std::free)> url(rawUrl, std::free);
  if (status != 0 || url == nullptr) {
    throw std::runtime_error("Failed to get device messaging URL from dynconfig.");
  }
  return std::string(url.get());
}

WebRequest newServerRequest(const std::string& url, const RequestMethod& method,
                            const std::string& reason) {
  WebRequest request;
  request.setUrl(url);
  request.setMethod(method);
  request.setHeader("accept", "application/json");
  request.setHeader("x-zvo-reason", reason);
  request.setMaxRetries(3);
  return request;
}
