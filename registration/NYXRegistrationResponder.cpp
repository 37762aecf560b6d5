#include "registration/NYXRegistrationResponder.h"

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"
#include "hbus.h"

namespace {

const char kTag[] = "NYXRegistrationResponder";
const char kProperty[] = "nyx_registration";

}  // namespace

NYXRegistrationResponder::NYXRegistrationResponder(std::shared_ptr<IPCMessageSender> sender)
    : sender_(std::move(sender)) {}

NYXRegistrationResponder::~NYXRegistrationResponder() = default;

void NYXRegistrationResponder::respondSuccess(const std::string& serviceName,
                                              const std::string& registrationId,
                                              const NYXRegistrationState& state) {
  logInfo(kTag, "Sending successful registration response to %s", serviceName.c_str());
  rapidjson::StringBuffer answer;
  JsonWriter writer(answer);
  writer.StartObject();
  if (state == NYXRegistrationState::Registered) {
    writeJsonMember(writer, "registration_id", registrationId);
  } else {
    writeJsonMember(writer, "old_registration_id", registrationId);
    writer.Key("unregistered");
    writer.Bool(true);
  }
  writer.EndObject();
  send(serviceName, jsonText(answer), "successful");
}

void NYXRegistrationResponder::respondFailure(const std::string& serviceName,
                                              const NYXRegistrationError& error) {
  logInfo(kTag, "Sending failed registration response to %s", serviceName.c_str());
  rapidjson::StringBuffer answer;
  JsonWriter writer(answer);
  writer.StartObject();
  writeJsonMember(writer, "error", error.getErrorCode().name());
  writeJsonMember(writer, "error_description", error.getDescription());
  writer.EndObject();
  send(serviceName, jsonText(answer), "failed");
}

void NYXRegistrationResponder::send(const std::string& serviceName, const std::string& answer,
                                    const char* outcome) {
  int status = sender_->send(serviceName, kProperty, answer);
  if (status == HBUS_STATUS_OK) {
    logInfo(kTag, "Sent %s registration response to %s", outcome, serviceName.c_str());
  } else if (isUnroutable(status)) {
    logError(kTag, "Service unroutable or missing property. Service: %s Property: %s",
             serviceName.c_str(), kProperty);
  } else {
    logWarn(kTag, "Service unresponsive. Service: %s Status: %d", serviceName.c_str(), status);
  }
}
