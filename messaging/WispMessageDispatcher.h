// Hands one fetched message to the service on the device that receives it,
// by writing a string property of that service over the property bus, and
// turns the bus status into a WispDispatchStatus.
//
// Owned by WispPollRequestHandler; worker thread only. Each call blocks until
// the receiving service answers or the bus gives up.
#ifndef NYX_MESSAGING_WISP_MESSAGE_DISPATCHER_H
#define NYX_MESSAGING_WISP_MESSAGE_DISPATCHER_H

#include <memory>

#include "daemon/common/IPCMessageSender.h"
#include "messaging/WispDispatchStatus.h"
#include "messaging/WispMessage.h"

class WispMessageDispatcher {
 public:
  explicit WispMessageDispatcher(std::shared_ptr<IPCMessageSender> sender);
  WispMessageDispatcher(const WispMessageDispatcher&) = delete;
  WispMessageDispatcher& operator=(const WispMessageDispatcher&) = delete;
  virtual ~WispMessageDispatcher();

  // Raw messages go to property "wisp_message" of the service named by the
  // topic; application messages to property "nyx_message" of the service in
  // their appInfo "service.name". The value is the compact JSON
  // {"id", "directedId" (only when non-empty), "payload"}, where payload is
  // the base64 of the raw payload or of the application message's data map
  // as a JSON object in key order.
  //
  // Returns Dispatched for bus status 0, Unhandled for 3 (no such service)
  // or 8 (no such property), Unresponsive for any other status. Throws
  // std::runtime_error for an application envelope that cannot be read or
  // that has no appInfo "service.name", and what the sender throws.
  virtual WispDispatchStatus dispatch(const WispMessage& message);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // NYX_MESSAGING_WISP_MESSAGE_DISPATCHER_H
