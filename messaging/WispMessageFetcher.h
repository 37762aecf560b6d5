// Pulls the messages waiting on the messaging server, one page per call,
// checks each message's CRC-32 and appends the good ones to the caller's list.
//
// Owned by WispPollRequestHandler, which calls reset() and then
// fetchNextPage() until it returns false. Worker thread only.
#ifndef NYX_MESSAGING_WISP_MESSAGE_FETCHER_H
#define NYX_MESSAGING_WISP_MESSAGE_FETCHER_H

#include <list>
#include <memory>

#include "http/HttpClient.h"
#include "http/RequestSigner.h"
#include "messaging/WispMessage.h"
#include "messaging/WispPollReason.h"

class WispMessageFetcher {
 public:
  // Keeps both collaborators and reads the configured URL. Throws
  // std::runtime_error "Failed to get device messaging URL from dynconfig."
  // when there is none.
  WispMessageFetcher(std::shared_ptr<HttpClient> httpClient, std::shared_ptr<RequestSigner> signer);
  WispMessageFetcher(const WispMessageFetcher&) = delete;
  WispMessageFetcher& operator=(const WispMessageFetcher&) = delete;
  virtual ~WispMessageFetcher();

  // Fetches the current page and appends its good messages, in page order,
  // to messages. Returns false, without a request, once a page without a
  // next page has been handled. Otherwise returns true when the page carried
  // a "messages" array (even an empty one), else whether it named a next
  // page: so a last page with messages takes one more call, which returns
  // false without a request.
  //
  // A message with a wrong CRC, or a missing or wrongly typed member, is
  // dropped with an error log; the rest of the page goes on. A body that is
  // not a JSON object counts as a last page without messages.
  //
  // Throws what HttpClient::execute throws (IOError, ServerError,
  // ClientError, set-up errors) and what the signer throws; messages appended
  // by earlier calls stay in the list.
  virtual bool fetchNextPage(const WispPollReason& reason, std::list<WispMessage>& messages);

  // Reads the configured URL again and makes the next call fetch a first
  // page. Throws as the constructor.
  virtual void reset();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // NYX_MESSAGING_WISP_MESSAGE_FETCHER_H
