// The entry of the registration subsystem: handles one application's
// request to register or unregister, from the text it wrote on the bus to
// the answer it receives in its "nyx_registration" property.
//
// The daemon makes one handler per registration task, bound to the customer
// active when the bus event arrived, and calls it on the worker thread.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_HANDLER_H
#define NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_HANDLER_H

#include <memory>
#include <string>

#include "registration/NYXRegistrar.h"
#include "registration/NYXRegistrationResponder.h"
#include "registration/NYXRegistrationValues.h"

class NYXRegistrationRequestHandler {
 public:
  // A handler for customerId ("" for none) that holds no open file, socket
  // or bus object while it waits in the task queue: only the responder is
  // made here. Each request handled makes the device's HTTP client, a
  // request signer for customerId and the registrar for the platform
  // "Tessel" on the cache file $NYX_ROOT/var/local/nyx_registration_cache.db,
  // and releases them, closing the cache, when it has been answered.
  explicit NYXRegistrationRequestHandler(const std::string& customerId);

  // Uses the given collaborators, for tests.
  NYXRegistrationRequestHandler(std::shared_ptr<NYXRegistrar> registrar,
                                std::shared_ptr<NYXRegistrationResponder> responder);

  virtual ~NYXRegistrationRequestHandler();
  NYXRegistrationRequestHandler(const NYXRegistrationRequestHandler&) = delete;
  NYXRegistrationRequestHandler& operator=(const NYXRegistrationRequestHandler&) = delete;

  // Registers the application serviceName, always in scope "DeviceCustomer",
  // for the senders in sendersText, split at runs of "," and " ". A separator
  // at either end leaves an empty sender there, and an empty text is one
  // empty sender; the registrar rejects both. The application receives the
  // identifier or, for an NYXRegistrationError, the error. Any other
  // exception (the cache cannot be opened, a configuration key is missing)
  // leaves the handler and the application receives nothing.
  virtual void handleRegister(const std::string& serviceName, const std::string& sendersText,
                              const NYXRegistrationReason& reason);

  // Unregisters the application; it receives the revoked identifier, ""
  // when it had none, or the NYXRegistrationError. Other exceptions leave
  // the handler.
  virtual void handleUnregister(const std::string& serviceName,
                                const NYXRegistrationReason& reason);

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_REQUEST_HANDLER_H
