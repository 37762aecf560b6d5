#include "registration/NYXRegistrar.h"

#include <boost/algorithm/string/trim.hpp>
#include <locale>

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"
#include "http/HttpErrors.h"
#include "registration/NYXRegistrationError.h"
#include "registration/NYXRegistrationRequestBuilder.h"
#include "registration/NYXUnregistrationRequestBuilder.h"

namespace {

const char kTag[] = "NYXRegistrar";

// The server's status for a rejected sender; no other client status carries
// a meaning the application could act on, so no other is inspected.
const uint32_t kRejectedSenderStatus = 499;

void validateSenders(const SenderList& senders) {
  if (senders.empty()) {
    throw NYXRegistrationError(NYXRegistrationErrorCode::InvalidSender,
                               "NYX registration requires at least one sender.");
  }
  for (const auto& sender : senders) {
    if (boost::algorithm::trim_copy(sender, std::locale::classic()).empty()) {
      throw NYXRegistrationError(NYXRegistrationErrorCode::InvalidSender,
                                 "'" + sender + "'" + " is not a valid sender.");
    }
  }
}

// The identifier in a success answer. An answer that does not hold one is a
// failure of the service, as an answer that never came would be: IOError,
// which the application receives as "ServiceNotAvailable" with this text.
std::string readRegistrationId(const WebResponse& response) {
  rapidjson::Document document;
  parseUntrusted(document, response.getBody());
  if (document.HasParseError()) {
    throw IOError(std::string("Registration response is not JSON: ") +
                  rapidjson::GetParseError_En(document.GetParseError()));
  }
  if (!document.IsObject()) {
    throw IOError("Registration response is not a JSON object");
  }
  const rapidjson::Value* id = jsonMember(document, "registrationID");
  if (id == nullptr) {
    throw IOError("Registration response has no registrationID");
  }
  if (!id->IsString()) {
    throw IOError("Registration response has a registrationID that is not a string");
  }
  if (id->GetStringLength() == 0) {
    throw IOError("Registration response has an empty registrationID");
  }
  return jsonString(*id);
}

// Throws the InvalidSender error when a 499 answer says the server rejected
// a sender; returns otherwise, and the caller rethrows the ClientError.
void raiseIfSenderRejected(const ClientError& error) {
  const WebResponse& response = error.getResponse();
  if (response.getStatusCode() != kRejectedSenderStatus) {
    return;
  }
  rapidjson::Document document;
  parseUntrusted(document, response.getBody());
  if (document.HasParseError() || !document.IsObject()) {
    return;
  }
  const rapidjson::Value* reason = jsonMember(document, "reason");
  if (reason == nullptr || !reason->IsString() || jsonString(*reason) != "InvalidSenderId") {
    return;
  }
  // A rejection without a readable message is still a rejected sender.
  std::string message;
  const rapidjson::Value* text = jsonMember(document, "message");
  if (text != nullptr && text->IsString()) {
    message = jsonString(*text);
  }
  throw NYXRegistrationError(NYXRegistrationErrorCode::InvalidSender, message);
}

}  // namespace

struct NYXRegistrar::Record {
  std::string platformName;
  std::shared_ptr<NYXRegistrationCache> cache;
  std::shared_ptr<HttpClient> httpClient;
  std::shared_ptr<RequestSigner> signer;
};

NYXRegistrar::NYXRegistrar(const std::string& platformName,
                           std::shared_ptr<NYXRegistrationCache> cache,
                           std::shared_ptr<HttpClient> httpClient,
                           std::shared_ptr<RequestSigner> signer)
    : record_(
          new Record{platformName, std::move(cache), std::move(httpClient), std::move(signer)}) {}

NYXRegistrar::~NYXRegistrar() = default;

std::string NYXRegistrar::registerApp(const SenderList& senders, const AppInfoMap& appInfo,
                                      const AppInfoMap& appInstanceInfo,
                                      const NYXRegistrationScope& scope,
                                      const NYXRegistrationReason& reason) {
  validateSenders(senders);

  const std::string app = renderAppInfo(appInfo);
  const std::string sendersText = joinSenders(senders);
  const std::string accountId = record_->signer->getDirectedId();

  std::string cached =
      record_->cache->findForRegistration(senders, appInfo, appInstanceInfo, scope, accountId);
  if (!cached.empty()) {
    logWarn(kTag,
            "Spurious call for registration of app '%s' with senders '%s' due to '%s', "
            "has been ignored",
            app.c_str(), sendersText.c_str(), reason.name().c_str());
    return cached;
  }

  // After the cache, as the design orders it. Without an account the
  // look-up above binds the empty account, under which no "DeviceCustomer"
  // registration is ever stored (storing one needs an account), so an
  // application whose account signed out is refused here. Its row stays and
  // answers again once the same account is back.
  if (scope == NYXRegistrationScope::DeviceCustomer && accountId.empty()) {
    throw NYXRegistrationError(
        NYXRegistrationErrorCode::AuthenticationFailed,
        "DeviceCustomer scoped NYX registrations require the device to be registered.");
  }

  logInfo(kTag, "Request to register app '%s' with senders '%s' due to '%s'", app.c_str(),
          sendersText.c_str(), reason.name().c_str());

  std::string registrationId;
  try {
    NYXRegistrationRequestBuilder builder;
    builder.setPlatformName(record_->platformName);
    builder.setSenders(senders);
    builder.setAppInfo(appInfo);
    builder.setAppInstanceInfo(appInstanceInfo);
    builder.setScope(scope);
    WebResponse response = record_->httpClient->execute(builder.build(reason, *record_->signer));
    registrationId = readRegistrationId(response);
    // Only now, with the server's identifier in hand: a failed registration
    // must not leave a row that would answer the next request from the cache.
    record_->cache->store(registrationId, senders, appInfo, appInstanceInfo, scope, accountId);
  } catch (const ClientError& error) {
    raiseIfSenderRejected(error);
    throw;
  } catch (const IOError& error) {
    throw NYXRegistrationError(NYXRegistrationErrorCode::ServiceNotAvailable, error.what());
  }

  logInfo(kTag, "Successfully registered app '%s'. RegistrationId is '%s'", app.c_str(),
          registrationId.c_str());
  return registrationId;
}

std::string NYXRegistrar::unregisterApp(const AppInfoMap& appInfo,
                                        const AppInfoMap& appInstanceInfo,
                                        const NYXRegistrationScope& scope,
                                        const NYXRegistrationReason& reason) {
  const std::string app = renderAppInfo(appInfo);
  const std::string accountId = record_->signer->getDirectedId();

  std::string registrationId =
      record_->cache->findForUnregistration(appInfo, appInstanceInfo, scope, accountId);
  if (registrationId.empty()) {
    logWarn(kTag, "Spurious call for unregistration of app '%s' due to '%s', has been ignored",
            app.c_str(), reason.name().c_str());
    return std::string();
  }

  logInfo(kTag, "Request to unregister app '%s' due to '%s'", app.c_str(), reason.name().c_str());
  unregisterRegistration(registrationId, reason);
  logInfo(kTag, "Successfully unregistered app '%s'. Old RegistrationId was '%s'", app.c_str(),
          registrationId.c_str());
  return registrationId;
}

void NYXRegistrar::unregisterRegistration(const std::string& registrationId,
                                          const NYXRegistrationReason& reason) {
  // First, so that the application is unregistered on the device even when
  // the server cannot be told; a later registration then asks the server
  // afresh instead of answering with a revoked identifier.
  record_->cache->remove(registrationId);

  try {
    NYXUnregistrationRequestBuilder builder;
    builder.setRegistrationId(registrationId);
    record_->httpClient->execute(builder.build(reason, *record_->signer));
  } catch (const IOError& error) {
    throw NYXRegistrationError(NYXRegistrationErrorCode::ServiceNotAvailable, error.what());
  }
}
