// Registers and unregisters one application with the messaging server,
// answering repeated requests from the registration cache, and turns every
// registration failure into an NYXRegistrationError.
//
// Made by NYXRegistrationRequestHandler for one request and called on the
// worker thread only. It keeps no state between calls; the cache holds it.
#ifndef NYX_REGISTRATION_NYX_REGISTRAR_H
#define NYX_REGISTRATION_NYX_REGISTRAR_H

#include <memory>
#include <string>

#include "http/HttpClient.h"
#include "http/RequestSigner.h"
#include "registration/AppDescription.h"
#include "registration/NYXRegistrationCache.h"
#include "registration/NYXRegistrationValues.h"

class NYXRegistrar {
 public:
  // platformName goes into every registration request. signer signs the
  // requests and names the current account (getDirectedId, "" for none).
  NYXRegistrar(const std::string& platformName, std::shared_ptr<NYXRegistrationCache> cache,
               std::shared_ptr<HttpClient> httpClient, std::shared_ptr<RequestSigner> signer);
  virtual ~NYXRegistrar();
  NYXRegistrar(const NYXRegistrar&) = delete;
  NYXRegistrar& operator=(const NYXRegistrar&) = delete;

  // Returns the registration identifier: the cached one when the same
  // senders, application, scope and account are already registered (no
  // server call, a warning), otherwise the one the server grants, which is
  // then cached.
  //
  // Throws NYXRegistrationError: "InvalidSender" for no senders, a sender
  // that is blank, or a 499 answer whose "reason" is "InvalidSenderId" (its
  // "message" becomes the description); "AuthenticationFailed" for scope
  // "DeviceCustomer" without an account (checked only after the cache);
  // "ServiceNotAvailable" for any IOError of the exchange, and for a success
  // answer that is not a JSON object with a non-empty string
  // "registrationID" (the description says what was wrong). Every other
  // ClientError passes unchanged; request building, signing and the cache
  // throw std::runtime_error. The cache is written only after the server
  // answered with an identifier.
  virtual std::string registerApp(const SenderList& senders, const AppInfoMap& appInfo,
                                  const AppInfoMap& appInstanceInfo,
                                  const NYXRegistrationScope& scope,
                                  const NYXRegistrationReason& reason);

  // Returns the identifier that was revoked, or "" (with a warning and no
  // server call) when the cache holds none for the application. Throws as
  // unregisterRegistration.
  virtual std::string unregisterApp(const AppInfoMap& appInfo, const AppInfoMap& appInstanceInfo,
                                    const NYXRegistrationScope& scope,
                                    const NYXRegistrationReason& reason);

  // Removes the registration from the cache and then revokes it at the
  // server; the answer's body is not read. The cache entry is gone even when
  // the server call fails. Throws NYXRegistrationError "ServiceNotAvailable"
  // for an IOError; a ClientError and std::runtime_error pass unchanged.
  virtual void unregisterRegistration(const std::string& registrationId,
                                      const NYXRegistrationReason& reason);

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_REGISTRATION_NYX_REGISTRAR_H
