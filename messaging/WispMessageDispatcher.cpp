#include "messaging/WispMessageDispatcher.h"

#include <string>

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"
#include "hbus.h"
#include "messaging/Base64.h"
#include "messaging/NYXMessage.h"

namespace {

constexpr char kTag[] = "WispMessageDispatcher";
constexpr char kWispMessageProperty[] = "wisp_message";
constexpr char kNyxMessageProperty[] = "nyx_message";

std::string deliveryEnvelope(const WispMessage& message, const std::string& content) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writeJsonMember(writer, "id", message.getId());
  if (!message.getDirectedCustomerId().empty()) {
    writeJsonMember(writer, "directedId", message.getDirectedCustomerId());
  }
  writeJsonMember(
      writer, "payload",
      encodeBase64(reinterpret_cast<const unsigned char*>(content.data()), content.size()));
  writer.EndObject();
  return jsonText(buffer);
}

// Only the data map reaches the application; registration id and the app
// descriptions are the daemon's routing information.
std::string dataJson(const NYXMessage& message) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  for (const auto& entry : message.getDataMap()) {
    writeJsonMember(writer, entry.first, entry.second);
  }
  writer.EndObject();
  return jsonText(buffer);
}

}  // namespace

struct WispMessageDispatcher::Impl {
  WispDispatchStatus dispatchNyx(const WispMessage& message);
  WispDispatchStatus dispatchRaw(const WispMessage& message);

  std::shared_ptr<IPCMessageSender> sender;
};

WispDispatchStatus WispMessageDispatcher::Impl::dispatchNyx(const WispMessage& message) {
  const NYXMessage nyxMessage = NYXMessage::fromEnvelope(message);
  const std::string service = nyxMessage.getAppInfo("service.name");
  const char* id = message.getId().c_str();
  logInfo(kTag, "Dispatching NYX message. ID: %s Service: %s Payload: %d bytes", id,
          service.c_str(), static_cast<int>(message.getPayload().size()));
  const int status =
      sender->send(service, kNyxMessageProperty, deliveryEnvelope(message, dataJson(nyxMessage)));
  if (status == HBUS_STATUS_OK) {
    logInfo(kTag, "Dispatched NYX message. ID: %s Service: %s", id, service.c_str());
    return WispDispatchStatus::Dispatched;
  }
  if (isUnroutable(status)) {
    logError(kTag, "Service unroutable or missing property. Service: %s Property: %s",
             service.c_str(), kNyxMessageProperty);
    return WispDispatchStatus::Unhandled;
  }
  logWarn(kTag, "Service unresponsive. Service: %s Status: %d", service.c_str(), status);
  return WispDispatchStatus::Unresponsive;
}

WispDispatchStatus WispMessageDispatcher::Impl::dispatchRaw(const WispMessage& message) {
  const std::string& topic = message.getTopic();
  const char* id = message.getId().c_str();
  logInfo(kTag, "Dispatching WISP message. ID: %s Topic: %s Payload: %d bytes", id, topic.c_str(),
          static_cast<int>(message.getPayload().size()));
  // The topic goes to the bus as it is; one that is not a valid bus name is
  // refused there as an unknown service.
  const int status =
      sender->send(topic, kWispMessageProperty, deliveryEnvelope(message, message.getPayload()));
  if (status == HBUS_STATUS_OK) {
    logInfo(kTag, "Dispatched WISP message. ID: %s Topic: %s", id, topic.c_str());
    return WispDispatchStatus::Dispatched;
  }
  if (isUnroutable(status)) {
    logError(kTag, "WISP Topic unhandled or missing property. Topic: %s Property: %s",
             topic.c_str(), kWispMessageProperty);
    return WispDispatchStatus::Unhandled;
  }
  logWarn(kTag, "Service unresponsive. Topic: %s Status: %d", topic.c_str(), status);
  return WispDispatchStatus::Unresponsive;
}

WispMessageDispatcher::WispMessageDispatcher(std::shared_ptr<IPCMessageSender> sender)
    : impl_(new Impl{std::move(sender)}) {}

WispMessageDispatcher::~WispMessageDispatcher() = default;

WispDispatchStatus WispMessageDispatcher::dispatch(const WispMessage& message) {
  if (message.getPayloadType() == WispPayloadType::NYX) {
    return impl_->dispatchNyx(message);
  }
  return impl_->dispatchRaw(message);
}
