// Reports the final outcome of a dispatched message to the messaging server,
// by queueing a response with the device's outbound-message service
// ("queueMessage" of "com.corvid.outbox"), which sends it on.
//
// Owned by WispPollRequestHandler; worker thread only.
#ifndef NYX_MESSAGING_WISP_MESSAGE_PURGER_H
#define NYX_MESSAGING_WISP_MESSAGE_PURGER_H

#include <memory>

#include "daemon/common/IPCMessageSender.h"
#include "messaging/WispDispatchStatus.h"
#include "messaging/WispMessage.h"

class WispMessagePurger {
 public:
  explicit WispMessagePurger(std::shared_ptr<IPCMessageSender> sender);
  WispMessagePurger(const WispMessagePurger&) = delete;
  WispMessagePurger& operator=(const WispMessagePurger&) = delete;
  virtual ~WispMessagePurger();

  // Queues {"topic":"cobalt.messaging.response","payload":<base64 of the
  // response record>,"gunzip":false,"options":{"flushTime":1}}. Returns
  // whether the outbound service accepted it; a refused entry is only logged,
  // and the message stays on the server to be fetched again later. Throws
  // only what the sender throws.
  virtual bool purge(const WispMessage& message, const WispDispatchStatus& status);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // NYX_MESSAGING_WISP_MESSAGE_PURGER_H
