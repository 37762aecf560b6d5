#include "registration/NYXRegistrationRequestBuilder.h"

#include <stdexcept>

#include "daemon/common/Json.h"
#include "registration/DeviceMessagingRequest.h"

namespace {

void writeObject(rapidjson::Writer<rapidjson::StringBuffer>& writer, const AppInfoMap& info) {
  writer.StartObject();
  for (const auto& entry : info) {
    writer.Key(entry.first.c_str(), static_cast<rapidjson::SizeType>(entry.first.size()));
    writer.String(entry.second.c_str(), static_cast<rapidjson::SizeType>(entry.second.size()));
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

  WebRequest request = newDeviceMessagingRequest("url.devicemessaging.registration", reason);

  rapidjson::StringBuffer body;
  rapidjson::Writer<rapidjson::StringBuffer> writer(body);
  writer.StartObject();
  writer.Key("platform");
  writer.String(record_->platformName.c_str(),
                static_cast<rapidjson::SizeType>(record_->platformName.size()));
  writer.Key("allowedSenders");
  writer.StartArray();
  for (const auto& sender : record_->senders) {
    writer.String(sender.c_str(), static_cast<rapidjson::SizeType>(sender.size()));
  }
  writer.EndArray();
  writer.Key("appInfo");
  writeObject(writer, record_->appInfo);
  if (!record_->appInstanceInfo.empty()) {
    writer.Key("appInstanceInfo");
    writeObject(writer, record_->appInstanceInfo);
  }
  writer.Key("target");
  writer.String(record_->scope.name().c_str(),
                static_cast<rapidjson::SizeType>(record_->scope.name().size()));
  writer.EndObject();
  request.setBody(body.GetString(), body.GetSize());

  signer.sign(request);
  return request;
}
