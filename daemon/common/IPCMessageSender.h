// The one way the daemon sends something to another service on the device:
// it writes a string property of that service over the property bus.
//
// Used on the worker thread by the registration responder, the message
// dispatcher and the purger, which share one sender per handler.
#ifndef NYX_DAEMON_COMMON_IPC_MESSAGE_SENDER_H
#define NYX_DAEMON_COMMON_IPC_MESSAGE_SENDER_H

#include <string>

class IPCMessageSender {
 public:
  virtual ~IPCMessageSender();

  // Writes value into property of service, from the daemon's own bus service,
  // and waits for the answer. Returns the bus status, 0 for success; a bus
  // failure is only returned, never logged or thrown. Throws only what
  // HbusHandleProvider::getHandle throws.
  virtual int send(const std::string& service, const std::string& property,
                   const std::string& value);
};

// True for the bus statuses of send that mean the receiver does not exist as
// addressed (no such service, no such property), as opposed to one that
// exists but did not answer: a message kept for another try cannot reach it.
bool isUnroutable(int status);

#endif  // NYX_DAEMON_COMMON_IPC_MESSAGE_SENDER_H
