#include "messaging/WispFetchRequestBuilder.h"

#include "http/ServerRequest.h"

namespace {

constexpr char kUrlKey[] = "url.devicemessaging.getmessages";

}  // namespace

WispFetchRequestBuilder::WispFetchRequestBuilder() : url_(configuredServerUrl(kUrlKey)) {}

WispFetchRequestBuilder::~WispFetchRequestBuilder() = default;

void WispFetchRequestBuilder::setNextPage(const std::string& url) { url_ = url; }

void WispFetchRequestBuilder::reset() { url_ = configuredServerUrl(kUrlKey); }

WebRequest WispFetchRequestBuilder::build(const WispPollReason& reason,
                                          RequestSigner& signer) const {
  return signedServerRequest(url_, RequestMethod::GET, reason.name(), "", signer);
}
