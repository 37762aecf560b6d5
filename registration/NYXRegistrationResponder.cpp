#include "registration/NYXRegistrationResponder.h"

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"

namespace {

const char kTag[] = "NYXRegistrationResponder";
const char kProperty[] = "nyx_registration";

// Bus statuses meaning the application cannot be reached at all, as opposed
// to one that exists but did not answer.
const int kNoSuchService = 3;
const int kNoSuchProperty = 8;

void writeString(rapidjson::Writer<rapidjson::StringBuffer>& writer, const std::string& text) {
  writer.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
}

}  // namespace

NYXRegistrationResponder::NYXRegistrationResponder(std::shared_ptr<IPCMessageSender> sender)
    : sender_(std::move(sender)) {}

NYXRegistrationResponder::~NYXRegistrationResponder() = default;

void NYXRegistrationResponder::respondSuccess(const std::string& serviceName,
                                              const std::string& registrationId,
                                              const NYXRegistrationState& state) {
  logInfo(kTag, "Sending successful registration response to %s", serviceName.c_str());
  rapidjson::StringBuffer answer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(answer);
  writer.StartObject();
  if (state == NYXRegistrationState::Registered) {
    writer.Key("registration_id");
    writeString(writer, registrationId);
  } else {
    writer.Key("old_registration_id");
    writeString(writer, registrationId);
    writer.Key("unregistered");
    writer.Bool(true);
  }
  writer.EndObject();
  send(serviceName, std::string(answer.GetString(), answer.GetSize()), "successful");
}

void NYXRegistrationResponder::respondFailure(const std::string& serviceName,
                                              const NYXRegistrationError& error) {
  logInfo(kTag, "Sending failed registration response to %s", serviceName.c_str());
  rapidjson::StringBuffer answer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(answer);
  writer.StartObject();
  writer.Key("error");
  writeString(writer, error.getErrorCode().name());
  writer.Key("error_description");
  writeString(writer, error.getDescription());
  writer.EndObject();
  send(serviceName, std::string(answer.GetString(), answer.GetSize()), "failed");
}

void NYXRegistrationResponder::send(const std::string& serviceName, const std::string& answer,
                                    const char* outcome) {
  int status = sender_->send(serviceName, kProperty, answer);
  if (status == 0) {
    logInfo(kTag, "Sent %s registration response to %s", outcome, serviceName.c_str());
  } else if (status == kNoSuchService || status == kNoSuchProperty) {
    logError(kTag, "Service unroutable or missing property. Service: %s Property: %s",
             serviceName.c_str(), kProperty);
  } else {
    logWarn(kTag, "Service unresponsive. Service: %s Status: %d", serviceName.c_str(), status);
  }
}
