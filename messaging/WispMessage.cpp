#include "messaging/WispMessage.h"

const std::string kNyxTopicPrefix("cobalt.device.messaging.");

struct WispMessage::Record {
  std::string id;
  std::string directedCustomerId;
  std::string topic;
  std::string payload;
};

WispMessage::WispMessage() : record_(new Record()) {}

WispMessage::WispMessage(const WispMessage& other) : record_(new Record(*other.record_)) {}

WispMessage& WispMessage::operator=(const WispMessage& other) {
  if (this != &other) {
    *record_ = *other.record_;
  }
  return *this;
}

WispMessage::~WispMessage() = default;

bool WispMessage::operator==(const WispMessage& other) const {
  if (this == &other) {
    return true;
  }
  const Record& a = *record_;
  const Record& b = *other.record_;
  return a.id == b.id && a.directedCustomerId == b.directedCustomerId && a.topic == b.topic &&
         a.payload == b.payload;
}

bool WispMessage::operator!=(const WispMessage& other) const { return !(*this == other); }

void WispMessage::setId(const std::string& id) { record_->id = id; }
const std::string& WispMessage::getId() const { return record_->id; }

void WispMessage::setDirectedCustomerId(const std::string& directedCustomerId) {
  record_->directedCustomerId = directedCustomerId;
}
const std::string& WispMessage::getDirectedCustomerId() const {
  return record_->directedCustomerId;
}

void WispMessage::setTopic(const std::string& topic) { record_->topic = topic; }
const std::string& WispMessage::getTopic() const { return record_->topic; }

void WispMessage::setPayload(const std::string& payload) { record_->payload = payload; }
const std::string& WispMessage::getPayload() const { return record_->payload; }

WispPayloadType WispMessage::getPayloadType() const {
  return record_->topic.compare(0, kNyxTopicPrefix.size(), kNyxTopicPrefix) == 0
             ? WispPayloadType::NYX
             : WispPayloadType::Raw;
}
