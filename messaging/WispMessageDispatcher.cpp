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

// How one kind of message is delivered and logged.
struct Delivery {
  const char* kind;        // "NYX" or "WISP"
  const char* receiver;    // what the log calls the receiver: "Service" or "Topic"
  const char* unroutable;  // the start of the log line for an unroutable receiver
  const char* property;    // the receiver's property that is written
};

constexpr Delivery kNyxDelivery = {"NYX", "Service", "Service unroutable", kNyxMessageProperty};
constexpr Delivery kWispDelivery = {"WISP", "Topic", "WISP Topic unhandled", kWispMessageProperty};

struct WispMessageDispatcher::Impl {
  // Writes the delivery envelope of message with content into the
  // receiver's property and turns the bus status into the dispatch status.
  WispDispatchStatus deliver(const Delivery& how, const WispMessage& message,
                             const std::string& receiver, const std::string& content);

  std::shared_ptr<IPCMessageSender> sender;
};

WispDispatchStatus WispMessageDispatcher::Impl::deliver(const Delivery& how,
                                                        const WispMessage& message,
                                                        const std::string& receiver,
                                                        const std::string& content) {
  const char* id = message.getId().c_str();
  logInfo(kTag, "Dispatching %s message. ID: %s %s: %s Payload: %d bytes", how.kind, id,
          how.receiver, receiver.c_str(), static_cast<int>(message.getPayload().size()));
  const int status = sender->send(receiver, how.property, deliveryEnvelope(message, content));
  if (status == HBUS_STATUS_OK) {
    logInfo(kTag, "Dispatched %s message. ID: %s %s: %s", how.kind, id, how.receiver,
            receiver.c_str());
    return WispDispatchStatus::Dispatched;
  }
  if (isUnroutable(status)) {
    logError(kTag, "%s or missing property. %s: %s Property: %s", how.unroutable, how.receiver,
             receiver.c_str(), how.property);
    return WispDispatchStatus::Unhandled;
  }
  logWarn(kTag, "Service unresponsive. %s: %s Status: %d", how.receiver, receiver.c_str(), status);
  return WispDispatchStatus::Unresponsive;
}

WispMessageDispatcher::WispMessageDispatcher(std::shared_ptr<IPCMessageSender> sender)
    : impl_(new Impl{std::move(sender)}) {}

WispMessageDispatcher::~WispMessageDispatcher() = default;

WispDispatchStatus WispMessageDispatcher::dispatch(const WispMessage& message) {
  if (message.getPayloadType() == WispPayloadType::NYX) {
    const NYXMessage nyxMessage = NYXMessage::fromEnvelope(message);
    return impl_->deliver(kNyxDelivery, message, nyxMessage.getAppInfo("service.name"),
                          dataJson(nyxMessage));
  }
  // The topic goes to the bus as it is; one that is not a valid bus name is
  // refused there as an unknown service.
  return impl_->deliver(kWispDelivery, message, message.getTopic(), message.getPayload());
}
