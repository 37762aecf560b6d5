// An application message: the JSON envelope carried in the payload of a
// WispMessage whose topic starts with kNyxTopicPrefix.
//
// The dispatcher builds one per application message with fromEnvelope and
// delivers only its data map. A value: copies are deep. Used on the worker
// thread.
#ifndef NYX_MESSAGING_NYX_MESSAGE_H
#define NYX_MESSAGING_NYX_MESSAGE_H

#include <map>
#include <memory>
#include <string>

#include "messaging/WispMessage.h"

class NYXMessage {
 public:
  // Ordered by plain byte-wise comparison of the keys; the dispatcher writes
  // the data map in this order.
  using StringMap = std::map<std::string, std::string>;

  // All fields empty.
  NYXMessage();
  NYXMessage(const NYXMessage& other);

  virtual NYXMessage& operator=(const NYXMessage& other);
  virtual ~NYXMessage();

  // Builds the message from the envelope in message's payload. The data map
  // gets "from" = senderId and "collapse_key" = consolidationKey (or
  // "do_not_collapse" when that is empty) before the envelope's own "data"
  // members, so a "data" member of either name wins.
  //
  // Throws std::runtime_error when the topic is not an application topic
  // ("Cannot deserialize NYX Message from envelope with unsupported payload
  // type"), when the payload is not a JSON object, when "registrationId" or
  // "senderId" is missing or not a string, or when any other member read is
  // of the wrong type. No partial message is returned.
  static NYXMessage fromEnvelope(const WispMessage& message);

  const std::string& getRegistrationId() const;
  void setRegistrationId(const std::string& registrationId);
  const std::string& getSenderId() const;
  void setSenderId(const std::string& senderId);
  // Empty when the envelope had none.
  const std::string& getConsolidationKey() const;
  void setConsolidationKey(const std::string& consolidationKey);

  // Each set… inserts or overwrites. Each get… throws std::runtime_error
  // "Attempted retrieval of non-existent <map> entry: <key>" for a missing
  // key.
  bool hasAppInfo(const std::string& key) const;
  const std::string& getAppInfo(const std::string& key) const;
  void setAppInfo(const std::string& key, const std::string& value);

  bool hasAppInstanceInfo(const std::string& key) const;
  const std::string& getAppInstanceInfo(const std::string& key) const;
  void setAppInstanceInfo(const std::string& key, const std::string& value);

  bool hasData(const std::string& key) const;
  const std::string& getData(const std::string& key) const;
  void setData(const std::string& key, const std::string& value);

  const StringMap& getDataMap() const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_MESSAGING_NYX_MESSAGE_H
