// Tells an application the outcome of its registration or unregistration by
// writing a JSON text into the string property "nyx_registration" of the
// application's own bus service.
//
// Used by NYXRegistrationRequestHandler on the worker thread. A bus failure
// is logged, never thrown, and the answer is not retried: an application
// that is not listening loses it.
#ifndef NYX_REGISTRATION_NYX_REGISTRATION_RESPONDER_H
#define NYX_REGISTRATION_NYX_REGISTRATION_RESPONDER_H

#include <memory>
#include <string>

#include "daemon/common/IPCMessageSender.h"
#include "registration/NYXRegistrationError.h"
#include "registration/NYXRegistrationValues.h"

class NYXRegistrationResponder {
 public:
  explicit NYXRegistrationResponder(std::shared_ptr<IPCMessageSender> sender);
  virtual ~NYXRegistrationResponder();
  NYXRegistrationResponder(const NYXRegistrationResponder&) = delete;
  NYXRegistrationResponder& operator=(const NYXRegistrationResponder&) = delete;

  // Sends {"registration_id":"<id>"} for the state "Registered" and
  // {"old_registration_id":"<id>","unregistered":true} for any other state;
  // the identifier is written as given, also when empty.
  virtual void respondSuccess(const std::string& serviceName, const std::string& registrationId,
                              const NYXRegistrationState& state);

  // Sends {"error":"<code name>","error_description":"<description>"}.
  virtual void respondFailure(const std::string& serviceName, const NYXRegistrationError& error);

 private:
  void send(const std::string& serviceName, const std::string& answer, const char* outcome);

  std::shared_ptr<IPCMessageSender> sender_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRATION_RESPONDER_H
