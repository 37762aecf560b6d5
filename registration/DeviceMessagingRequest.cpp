#include "registration/DeviceMessagingRequest.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "dynconfig.h"

WebRequest newDeviceMessagingRequest(const char* configKey, const NYXRegistrationReason& reason) {
  char* rawUrl = nullptr;
  int status = getDynamicConfigValue(configKey, &rawUrl);
  std::unique_ptr<char, decltype(&std::free)> url(rawUrl, std::free);
  if (status != 0 || url == nullptr) {
    throw std::runtime_error("Failed to get device messaging URL from dynconfig.");
  }

  WebRequest request;
  request.setUrl(url.get());
  request.setMethod(RequestMethod::POST);
  request.setHeader("accept", "application/json");
  request.setHeader("content-type", "application/json");
  request.setHeader("x-zvo-reason", reason.name());
  request.setMaxRetries(3);
  return request;
}
