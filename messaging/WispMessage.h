// One message as the messaging server delivers it: identifier, topic, the
// customer it is directed at (empty when none) and the decoded payload bytes.
//
// The fetcher builds these values, the dispatcher reads them and the purger
// acknowledges them by identifier. A value: copies are deep. Used on the
// worker thread.
#ifndef NYX_MESSAGING_WISP_MESSAGE_H
#define NYX_MESSAGING_WISP_MESSAGE_H

#include <memory>
#include <string>

#include "messaging/WispPayloadType.h"

// A topic that starts with this text (trailing full stop included) carries an
// application message envelope; every other topic names the bus service that
// receives the payload as it is.
extern const std::string kNyxTopicPrefix;

class WispMessage {
 public:
  // All four fields empty.
  WispMessage();
  WispMessage(const WispMessage& other);

  virtual WispMessage& operator=(const WispMessage& other);
  virtual ~WispMessage();

  // Equal when both are the same object or id, directedCustomerId, topic and
  // payload are byte-for-byte equal.
  virtual bool operator==(const WispMessage& other) const;
  virtual bool operator!=(const WispMessage& other) const;

  virtual void setId(const std::string& id);
  virtual const std::string& getId() const;

  virtual void setDirectedCustomerId(const std::string& directedCustomerId);
  virtual const std::string& getDirectedCustomerId() const;

  virtual void setTopic(const std::string& topic);
  virtual const std::string& getTopic() const;

  // Any bytes, zero bytes included.
  virtual void setPayload(const std::string& payload);
  virtual const std::string& getPayload() const;

  // NYX when the topic begins with kNyxTopicPrefix (the bare prefix counts),
  // otherwise Raw. Nothing after the prefix is looked at.
  virtual WispPayloadType getPayloadType() const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

#endif  // NYX_MESSAGING_WISP_MESSAGE_H
