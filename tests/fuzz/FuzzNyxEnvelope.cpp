// Arbitrary bytes as an application message's payload to the decoder and the
// dispatcher, and as a raw message (topic up to the first newline, then id).
#include "messaging/NYXMessage.h"
#include "messaging/WispMessageDispatcher.h"
#include "tests/fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  WispMessageDispatcher dispatcher(std::make_shared<nyxtest::RecordingSender>());
  WispMessage message;
  message.setId("fuzz");
  message.setTopic(kNyxTopicPrefix + "app");
  message.setPayload(bytes);
  nyxfuzz::allowRuntimeError([&] { NYXMessage::fromEnvelope(message); });
  nyxfuzz::allowRuntimeError([&] { dispatcher.dispatch(message); });

  const size_t split = bytes.find('\n');
  WispMessage raw;
  raw.setTopic(bytes.substr(0, split));
  raw.setId(split == std::string::npos ? "" : bytes.substr(split + 1));
  raw.setPayload(bytes);
  nyxfuzz::allowRuntimeError([&] { dispatcher.dispatch(raw); });
  return 0;
}
