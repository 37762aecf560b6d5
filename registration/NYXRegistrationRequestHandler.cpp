#include "registration/NYXRegistrationRequestHandler.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <functional>

#include "daemon/common/IPCMessageSender.h"
#include "daemon/common/Logging.h"
#include "daemon/common/RootedPath.h"
#include "http/TesselCurlHttpClient.h"
#include "http/TesselRequestSigner.h"
#include "registration/NYXRegistrationCache.h"
#include "registration/NYXRegistrationError.h"

namespace {

const char kTag[] = "NYXRegistrationRequestHandler";
const char kCachePath[] = "/var/local/nyx_registration_cache.db";
const char kPlatformName[] = "Tessel";

AppInfoMap describeApp(const std::string& serviceName) { return {{"service.name", serviceName}}; }

// The device's registrar, made when a request is handled: its cache holds an
// open SQLite connection (a file descriptor) from here until the request is
// answered. A handler waiting in the task queue holds none, so a flood of
// queued requests costs memory only, never the process's open files.
std::shared_ptr<NYXRegistrar> makeDeviceRegistrar(const std::string& customerId) {
  auto httpClient = std::make_shared<TesselCurlHttpClient>();
  auto signer = std::make_shared<TesselRequestSigner>(customerId);
  return std::make_shared<NYXRegistrar>(
      kPlatformName, std::make_shared<NYXRegistrationCache>(rootedPath(kCachePath)), httpClient,
      signer);
}

}  // namespace

struct NYXRegistrationRequestHandler::Record {
  // Gives the registrar for one request.
  std::function<std::shared_ptr<NYXRegistrar>()> registrar;
  std::shared_ptr<NYXRegistrationResponder> responder;
};

NYXRegistrationRequestHandler::NYXRegistrationRequestHandler(const std::string& customerId)
    : record_(new Record{
          [customerId] { return makeDeviceRegistrar(customerId); },
          std::make_shared<NYXRegistrationResponder>(std::make_shared<IPCMessageSender>())}) {}

NYXRegistrationRequestHandler::NYXRegistrationRequestHandler(
    std::shared_ptr<NYXRegistrar> registrar, std::shared_ptr<NYXRegistrationResponder> responder)
    : record_(new Record{[registrar] { return registrar; }, std::move(responder)}) {}

NYXRegistrationRequestHandler::~NYXRegistrationRequestHandler() = default;

void NYXRegistrationRequestHandler::handleRegister(const std::string& serviceName,
                                                   const std::string& sendersText,
                                                   const NYXRegistrationReason& reason) {
  SenderList senders;
  boost::algorithm::split(senders, sendersText, boost::algorithm::is_any_of(", "),
                          boost::algorithm::token_compress_on);
  try {
    std::string registrationId =
        record_->registrar()->registerApp(senders, describeApp(serviceName), AppInfoMap(),
                                          NYXRegistrationScope::DeviceCustomer, reason);
    record_->responder->respondSuccess(serviceName, registrationId,
                                       NYXRegistrationState::Registered);
  } catch (const NYXRegistrationError& error) {
    logError(kTag, "NYXRegistrationError: %s", error.what());
    record_->responder->respondFailure(serviceName, error);
  }
}

void NYXRegistrationRequestHandler::handleUnregister(const std::string& serviceName,
                                                     const NYXRegistrationReason& reason) {
  try {
    std::string registrationId = record_->registrar()->unregisterApp(
        describeApp(serviceName), AppInfoMap(), NYXRegistrationScope::DeviceCustomer, reason);
    record_->responder->respondSuccess(serviceName, registrationId,
                                       NYXRegistrationState::Unregistered);
  } catch (const NYXRegistrationError& error) {
    logError(kTag, "NYXRegistrationError: %s", error.what());
    record_->responder->respondFailure(serviceName, error);
  }
}
