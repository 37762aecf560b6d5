#include "registration/NYXUnregistrationRequestBuilder.h"

#include <stdexcept>

#include "daemon/common/Json.h"
#include "registration/DeviceMessagingRequest.h"

struct NYXUnregistrationRequestBuilder::Record {
  std::string registrationId;
};

NYXUnregistrationRequestBuilder::NYXUnregistrationRequestBuilder() : record_(new Record) {}

NYXUnregistrationRequestBuilder::~NYXUnregistrationRequestBuilder() = default;

void NYXUnregistrationRequestBuilder::setRegistrationId(const std::string& registrationId) {
  record_->registrationId = registrationId;
}

WebRequest NYXUnregistrationRequestBuilder::build(const NYXRegistrationReason& reason,
                                                  RequestSigner& signer) const {
  const std::string& registrationId = record_->registrationId;
  if (registrationId.empty()) {
    throw std::runtime_error("RegistrationId must be provided");
  }

  WebRequest request = newDeviceMessagingRequest("url.devicemessaging.unregistration", reason);

  rapidjson::StringBuffer body;
  rapidjson::Writer<rapidjson::StringBuffer> writer(body);
  writer.StartObject();
  writer.Key("registrationId");
  writer.String(registrationId.c_str(), static_cast<rapidjson::SizeType>(registrationId.size()));
  writer.EndObject();
  request.setBody(body.GetString(), body.GetSize());

  signer.sign(request);
  return request;
}
