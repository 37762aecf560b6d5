#include "messaging/WispMessagePurger.h"

#include <string>

#include "daemon/common/Json.h"
#include "daemon/common/Logging.h"
#include "messaging/Base64.h"
#include "messaging/WispPurgeMessageRequest.h"

namespace {

constexpr char kTag[] = "WispMessagePurger";

std::string queueEntry(const std::string& response) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writeJsonMember(writer, "topic", "cobalt.messaging.response");
  writeJsonMember(
      writer, "payload",
      encodeBase64(reinterpret_cast<const unsigned char*>(response.data()), response.size()));
  writer.Key("gunzip");
  writer.Bool(false);
  writer.Key("options");
  writer.StartObject();
  writer.Key("flushTime");
  writer.Int(1);
  writer.EndObject();
  writer.EndObject();
  return jsonText(buffer);
}

}  // namespace

struct WispMessagePurger::Impl {
  std::shared_ptr<IPCMessageSender> sender;
};

WispMessagePurger::WispMessagePurger(std::shared_ptr<IPCMessageSender> sender)
    : impl_(new Impl{std::move(sender)}) {}

WispMessagePurger::~WispMessagePurger() = default;

bool WispMessagePurger::purge(const WispMessage& message, const WispDispatchStatus& status) {
  const char* id = message.getId().c_str();
  logInfo(kTag, "Sending purge message request. ID: %s", id);
  const std::string response = WispPurgeMessageRequest(message).toJson(status);
  const int result = impl_->sender->send("com.corvid.outbox", "queueMessage", queueEntry(response));
  if (result == 0) {
    logInfo(kTag, "Sent purge message request. ID: %s", id);
    return true;
  }
  logError(kTag, "Failed to send purge message request. ID: %s Status: %d", id, result);
  return false;
}
