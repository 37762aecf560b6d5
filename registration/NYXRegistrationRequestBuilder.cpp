#include "registration/NYXRegistrationRequestBuilder.h"

#include <stdexcept>

#include "daemon/common/Json.h"
#include "http/ServerRequest.h"

namespace {

void writeObject(JsonWriter& writer, const AppInfoMap& info) {
  writer.StartObject();
  for (const auto& entry : info) {
    writeJsonMember(writer, entry.first, entry.second);
  }
  writer.EndObject();
}

}  // namespace

struct NYXRegistrationRequestBuilder::Record {
  std::string platformName;
  SenderList senders;
  AppInfoMap appInfo;
  AppInfoMap appInstanceInfo;
  NYXRegistrationScope scope = NYXRegistrationScope::Device;
};

NYXRegistrationRequestBuilder::NYXRegistrationRequestBuilder() : record_(new Record) {}

NYXRegistrationRequestBuilder::~NYXRegistrationRequestBuilder() = default;

void NYXRegistrationRequestBuilder::setPlatformName(const std::string& platformName) {
  record_->platformName = platformName;
}

void NYXRegistrationRequestBuilder::setSenders(const SenderList& senders) {
  record_->senders = senders;
}

void NYXRegistrationRequestBuilder::setAppInfo(const AppInfoMap& appInfo) {
  record_->appInfo = appInfo;
}

void NYXRegistrationRequestBuilder::setAppInstanceInfo(const AppInfoMap& appInstanceInfo) {
  record_->appInstanceInfo = appInstanceInfo;
}

void NYXRegistrationRequestBuilder::setScope(const NYXRegistrationScope& scope) {
  record_->scope = scope;
}

WebRequest NYXRegistrationRequestBuilder::build(const NYXRegistrationReason& reason,
                                                RequestSigner& signer) const {
  if (record_->platformName.empty()) {
    throw std::runtime_error("PlatformName must be provided");
  }
  if (record_->senders.empty()) {
    throw std::runtime_error("Senders must not be empty");
  }
  if (record_->appInfo.empty()) {
    throw std::runtime_error("AppInfo must not be empty");
  }

  const std::string url = configuredServerUrl("url.devicemessaging.registration");
  rapidjson::StringBuffer body;
  JsonWriter writer(body);
  writer.StartObject();
  writeJsonMember(writer, "platform", record_->platformName);
  writer.Key("allowedSenders");
  writer.StartArray();
  for (const auto& sender : record_->senders) {
    writeJsonString(writer, sender);
  }
  writer.EndArray();
  writer.Key("appInfo");
  writeObject(writer, record_->appInfo);
  if (!record_->appInstanceInfo.empty()) {
    writer.Key("appInstanceInfo");
    writeObject(writer, record_->appInstanceInfo);
  }
  writeJsonMember(writer, "target", record_->scope.name());
  writer.EndObject();
  return signedServerRequest(url, RequestMethod::POST, reason.name(), jsonText(body), signer);
}
