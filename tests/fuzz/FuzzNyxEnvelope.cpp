// Feeds arbitrary bytes as the payload of an application message to
// NYXMessage::fromEnvelope and the dispatcher, and as a raw payload (with
// the first bytes as topic) to the dispatcher. Only std::runtime_error may
// come out; anything else, or a sanitizer report, is a finding.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "messaging/NYXMessage.h"
#include "messaging/WispMessageDispatcher.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/messaging/MessagingFakes.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nyxfuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto sender = std::make_shared<nyxtest::RecordingSender>();
  WispMessageDispatcher dispatcher(sender);

  WispMessage message;
  message.setId("fuzz");
  message.setTopic(kNyxTopicPrefix + "app");
  message.setPayload(bytes);
  try {
    NYXMessage::fromEnvelope(message);
  } catch (const std::runtime_error&) {
  }
  try {
    dispatcher.dispatch(message);
  } catch (const std::runtime_error&) {
  }

  // Raw: topic up to the first newline, the rest as payload and id.
  const size_t split = bytes.find('\n');
  WispMessage raw;
  raw.setTopic(bytes.substr(0, split));
  raw.setId(split == std::string::npos ? "" : bytes.substr(split + 1));
  raw.setPayload(bytes);
  try {
    dispatcher.dispatch(raw);
  } catch (const std::runtime_error&) {
    // The topic began with the application prefix after all.
  }
  return 0;
}
