#include "messaging/WispPurgeMessageRequest.h"

#include "daemon/common/Json.h"

WispPurgeMessageRequest::WispPurgeMessageRequest(const WispMessage& message) : message_(message) {}

WispPurgeMessageRequest::~WispPurgeMessageRequest() = default;

std::string WispPurgeMessageRequest::toJson(const WispDispatchStatus& status) const {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  writer.StartObject();
  writer.Key("response");
  writer.StartObject();
  writer.Key("id");
  // The server knows the id as a C string; anything after a zero byte is not
  // part of it.
  writer.String(message_.getId().c_str());
  writer.Key("status");
  writer.Uint(static_cast<unsigned>(status.code()));
  writer.Key("retry");
  writer.Bool(status.retry());
  writer.EndObject();
  writer.EndObject();
  return jsonText(buffer);
}
