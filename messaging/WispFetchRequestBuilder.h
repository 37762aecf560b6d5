// Makes the signed GET request for the current page of waiting messages.
//
// Owned by WispMessageFetcher, on the worker thread. The URL starts as the
// configured "url.devicemessaging.getmessages" and is replaced by each page's
// "nextPage", which the server gives as a complete URL.
#ifndef NYX_MESSAGING_WISP_FETCH_REQUEST_BUILDER_H
#define NYX_MESSAGING_WISP_FETCH_REQUEST_BUILDER_H

#include <string>

#include "http/RequestSigner.h"
#include "http/WebRequest.h"
#include "messaging/WispPollReason.h"

class WispFetchRequestBuilder {
 public:
  // Reads the configured URL. Throws std::runtime_error "Failed to get device
  // messaging URL from dynconfig." when there is none.
  WispFetchRequestBuilder();
  WispFetchRequestBuilder(const WispFetchRequestBuilder& other) = default;
  WispFetchRequestBuilder& operator=(const WispFetchRequestBuilder& other) = default;
  virtual ~WispFetchRequestBuilder();

  // Makes url, as given, the URL of the next request.
  virtual void setNextPage(const std::string& url);

  // Reads the configured URL again, so that a next-page URL of an earlier
  // cycle is never reused. Throws as the constructor; the URL is then
  // unchanged.
  virtual void reset();

  // Returns a GET of the current URL with "accept: application/json",
  // "x-zvo-reason: <reason>" and 3 retries, signed by signer as the last
  // step. Throws what signer->sign throws.
  virtual WebRequest build(const WispPollReason& reason, RequestSigner& signer) const;

 private:
  std::string url_;
};

#endif  // NYX_MESSAGING_WISP_FETCH_REQUEST_BUILDER_H
