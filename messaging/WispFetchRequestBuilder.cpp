#include "messaging/WispFetchRequestBuilder.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "dynconfig.h"

namespace {

std::string readConfiguredUrl() {
  char* value = nullptr;
  if (getDynamicConfigValue("url.devicemessaging.getmessages", &value) != 0) {
    throw std::runtime_error("Failed to get device messaging URL from dynconfig.");
  }
  std::unique_ptr<char, decltype(&free)> owner(value, free);
  if (value == nullptr) {
    throw std::runtime_error("Failed to get device messaging URL from dynconfig.");
  }
  return std::string(value);
}

}  // namespace

WispFetchRequestBuilder::WispFetchRequestBuilder() : url_(readConfiguredUrl()) {}

WispFetchRequestBuilder::~WispFetchRequestBuilder() = default;

void WispFetchRequestBuilder::setNextPage(const std::string& url) { url_ = url; }

void WispFetchRequestBuilder::reset() { url_ = readConfiguredUrl(); }

WebRequest WispFetchRequestBuilder::build(const WispPollReason& reason,
                                          RequestSigner& signer) const {
  WebRequest request;
  request.setUrl(url_);
  request.setMethod(RequestMethod::GET);
  request.setHeader("accept", "application/json");
  request.setHeader("x-zvo-reason", reason.name());
  request.setMaxRetries(3);
  signer.sign(request);
  return request;
}
