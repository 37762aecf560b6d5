#include "messaging/NYXMessage.h"

#include <stdexcept>

#include "daemon/common/Json.h"

struct NYXMessage::Record {
  std::string registrationId;
  std::string senderId;
  std::string consolidationKey;
  StringMap appInfo;
  StringMap appInstanceInfo;
  StringMap data;
};

namespace {

const std::string& lookup(const NYXMessage::StringMap& map, const std::string& key,
                          const char* prefix) {
  auto entry = map.find(key);
  if (entry == map.end()) {
    throw std::runtime_error(prefix + key);
  }
  return entry->second;
}

// The envelope comes from the network through the server; every member is
// checked for its type before it is read, so a bad envelope is reported by
// name instead of through the JSON library's assertion.
std::string requiredString(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = jsonMember(object, name);
  if (value == nullptr || !value->IsString()) {
    throw std::runtime_error(std::string("NYX envelope member is missing or not a string: ") +
                             name);
  }
  return jsonString(*value);
}

std::string optionalString(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = jsonMember(object, name);
  if (value == nullptr) {
    return std::string();
  }
  if (!value->IsString()) {
    throw std::runtime_error(std::string("NYX envelope member is not a string: ") + name);
  }
  return jsonString(*value);
}

// Calls store(name, value) for every member of the object member name, in
// document order; nothing when it is absent or null. Every value must be a
// string.
template <typename Store>
void forEachStringMember(const rapidjson::Value& object, const char* name, Store store) {
  const rapidjson::Value* value = jsonMember(object, name);
  if (value == nullptr) {
    return;
  }
  if (!value->IsObject()) {
    throw std::runtime_error(std::string("NYX envelope member is not an object: ") + name);
  }
  for (const auto& member : value->GetObject()) {
    if (!member.value.IsString()) {
      throw std::runtime_error(std::string("NYX envelope member holds a value that is not a "
                                           "string: ") +
                               name);
    }
    store(jsonString(member.name), jsonString(member.value));
  }
}

}  // namespace

NYXMessage::NYXMessage() : record_(new Record()) {}

NYXMessage::NYXMessage(const NYXMessage& other) : record_(new Record(*other.record_)) {}

NYXMessage& NYXMessage::operator=(const NYXMessage& other) {
  if (this != &other) {
    *record_ = *other.record_;
  }
  return *this;
}

NYXMessage::~NYXMessage() = default;

NYXMessage NYXMessage::fromEnvelope(const WispMessage& message) {
  if (message.getPayloadType() != WispPayloadType::NYX) {
    throw std::runtime_error(
        "Cannot deserialize NYX Message from envelope with unsupported payload type");
  }
  rapidjson::MemoryPoolAllocator<> allocator(64 * 1024);
  rapidjson::Document document(&allocator);
  parseUntrusted(document, message.getPayload());
  // A payload that is not a JSON object has none of the required members.
  if (document.HasParseError() || !document.IsObject()) {
    throw std::runtime_error("NYX envelope is not a JSON object");
  }

  NYXMessage result;
  Record& record = *result.record_;
  record.registrationId = requiredString(document, "registrationId");
  record.senderId = requiredString(document, "senderId");
  forEachStringMember(
      document, "appInfo",
      [&record](const std::string& key, const std::string& value) { record.appInfo[key] = value; });
  record.consolidationKey = optionalString(document, "consolidationKey");
  forEachStringMember(document, "appInstanceInfo",
                      [&record](const std::string& key, const std::string& value) {
                        record.appInstanceInfo[key] = value;
                      });
  record.data["from"] = record.senderId;
  record.data["collapse_key"] =
      record.consolidationKey.empty() ? "do_not_collapse" : record.consolidationKey;
  // Last, so that the envelope's own "from" or "collapse_key" replaces the
  // values above: the sending application has the final word on what its
  // receiver sees.
  forEachStringMember(
      document, "data",
      [&record](const std::string& key, const std::string& value) { record.data[key] = value; });
  return result;
}

const std::string& NYXMessage::getRegistrationId() const { return record_->registrationId; }
void NYXMessage::setRegistrationId(const std::string& registrationId) {
  record_->registrationId = registrationId;
}
const std::string& NYXMessage::getSenderId() const { return record_->senderId; }
void NYXMessage::setSenderId(const std::string& senderId) { record_->senderId = senderId; }
const std::string& NYXMessage::getConsolidationKey() const { return record_->consolidationKey; }
void NYXMessage::setConsolidationKey(const std::string& consolidationKey) {
  record_->consolidationKey = consolidationKey;
}

bool NYXMessage::hasAppInfo(const std::string& key) const {
  return record_->appInfo.count(key) != 0;
}
const std::string& NYXMessage::getAppInfo(const std::string& key) const {
  return lookup(record_->appInfo, key, "Attempted retrieval of non-existent app info entry: ");
}
void NYXMessage::setAppInfo(const std::string& key, const std::string& value) {
  record_->appInfo[key] = value;
}

bool NYXMessage::hasAppInstanceInfo(const std::string& key) const {
  return record_->appInstanceInfo.count(key) != 0;
}
const std::string& NYXMessage::getAppInstanceInfo(const std::string& key) const {
  return lookup(record_->appInstanceInfo, key,
                "Attempted retrieval of non-existent app instance info entry: ");
}
void NYXMessage::setAppInstanceInfo(const std::string& key, const std::string& value) {
  record_->appInstanceInfo[key] = value;
}

bool NYXMessage::hasData(const std::string& key) const { return record_->data.count(key) != 0; }
const std::string& NYXMessage::getData(const std::string& key) const {
  return lookup(record_->data, key, "Attempted retrieval of non-existent data entry: ");
}
void NYXMessage::setData(const std::string& key, const std::string& value) {
  record_->data[key] = value;
}

const NYXMessage::StringMap& NYXMessage::getDataMap() const { return record_->data; }
