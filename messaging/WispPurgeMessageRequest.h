// The response record that tells the messaging server what became of one
// message; the purger wraps it into an outbound queue entry.
//
// Made per purge on the worker thread; owns a copy of the message.
#ifndef NYX_MESSAGING_WISP_PURGE_MESSAGE_REQUEST_H
#define NYX_MESSAGING_WISP_PURGE_MESSAGE_REQUEST_H

#include <string>

#include "messaging/WispDispatchStatus.h"
#include "messaging/WispMessage.h"

class WispPurgeMessageRequest {
 public:
  explicit WispPurgeMessageRequest(const WispMessage& message);
  WispPurgeMessageRequest(const WispPurgeMessageRequest&) = delete;
  WispPurgeMessageRequest& operator=(const WispPurgeMessageRequest&) = delete;
  virtual ~WispPurgeMessageRequest();

  // Returns the compact JSON {"response":{"id":…,"status":…,"retry":…}} with
  // the message id up to its first zero byte and the status's code and retry
  // flag. Never throws but for allocation.
  virtual std::string toJson(const WispDispatchStatus& status) const;

 private:
  WispMessage message_;
};

#endif  // NYX_MESSAGING_WISP_PURGE_MESSAGE_REQUEST_H
