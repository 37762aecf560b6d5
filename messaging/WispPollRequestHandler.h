// Runs poll cycles: fetches every waiting page of messages, dispatches each
// message to its receiver on the device and purges those with a final
// outcome.
//
// A NudgeTask makes one handler per poll, bound to the customer active when
// the event arrived, and runs it on the worker thread.
#ifndef NYX_MESSAGING_WISP_POLL_REQUEST_HANDLER_H
#define NYX_MESSAGING_WISP_POLL_REQUEST_HANDLER_H

#include <memory>
#include <string>

#include "messaging/WispMessageDispatcher.h"
#include "messaging/WispMessageFetcher.h"
#include "messaging/WispMessagePurger.h"
#include "messaging/WispPollReason.h"

class WispPollRequestHandler {
 public:
  // Makes everything anew for customerId ("" when no customer is signed
  // in): the device's curl transport, a request signer for customerId, the
  // fetcher, and one IPCMessageSender shared by dispatcher and purger.
  // Throws std::runtime_error "Failed to get device messaging URL from
  // dynconfig." when no fetch URL is configured.
  explicit WispPollRequestHandler(const std::string& customerId);

  WispPollRequestHandler(std::shared_ptr<WispMessageFetcher> fetcher,
                         std::shared_ptr<WispMessageDispatcher> dispatcher,
                         std::shared_ptr<WispMessagePurger> purger);
  WispPollRequestHandler(const WispPollRequestHandler&) = delete;
  WispPollRequestHandler& operator=(const WispPollRequestHandler&) = delete;
  virtual ~WispPollRequestHandler();

  // One cycle: fetches page after page with reason in "x-zvo-reason". After
  // each page it dispatches every message still held, oldest first, and
  // purges and forgets those with a final status. A message that asked for a
  // retry is dispatched again after every later page of the cycle and, if it
  // never succeeds, left unpurged for the server to offer again.
  //
  // An IOError (ServerError included) from fetch, dispatch or purge ends the
  // cycle with the log "IOError: <text>"; messages not yet purged stay on
  // the server. Every other exception passes to the caller: ClientError, the
  // configuration error, an unreadable application envelope.
  virtual void handlePoll(const WispPollReason& reason);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // NYX_MESSAGING_WISP_POLL_REQUEST_HANDLER_H
