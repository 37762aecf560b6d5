#include "registration/NYXUnregistrationRequestBuilder.h"

#include <stdexcept>

#include "daemon/common/Json.h"
#include "http/ServerRequest.h"

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

  const std::string url = configuredServerUrl("url.devicemessaging.unregistration");
  rapidjson::StringBuffer body;
  JsonWriter writer(body);
  writer.StartObject();
  writeJsonMember(writer, "registrationId", registrationId);
  writer.EndObject();
  return signedServerRequest(url, RequestMethod::POST, reason.name(), jsonText(body), signer);
}
