// Server pages for the messaging suites, written the way the messaging
// server writes them.
#ifndef NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H
#define NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"

namespace nyxtest {

constexpr char kFirstPageUrl[] = "https://messaging.test/messages";

struct ServerMessage {
  std::string id;
  std::string topic;
  std::string payload;
  // JSON text of "directedCustomerId"; absent when empty.
  std::string directedJson = "";
  // The "crc" to send; the right one when unset.
  std::optional<uint32_t> crc = std::nullopt;
};

// One element of "messages".
inline std::string messageJson(const ServerMessage& m) {
  const std::string payload =
      encodeBase64(reinterpret_cast<const unsigned char*>(m.payload.data()), m.payload.size());
  std::string json = R"({"message":{"id":")" + m.id + R"(","topic":")" + m.topic +
                     R"(","payload":")" + payload + "\"";
  if (!m.directedJson.empty()) {
    json += R"(,"directedCustomerId":)" + m.directedJson;
  }
  json += R"(,"crc":)" + std::to_string(m.crc ? *m.crc : messageCrc32(m.topic, m.payload)) + "}}";
  return json;
}

// A page with the given message elements (already JSON) and next page.
inline std::string pageJson(const std::vector<std::string>& elements,
                            const std::string& nextPage = "") {
  std::string json = R"({"messages":[)";
  for (size_t i = 0; i < elements.size(); ++i) {
    json += (i ? "," : "") + elements[i];
  }
  json += "]";
  if (!nextPage.empty()) {
    json += R"(,"nextPage":")" + nextPage + "\"";
  }
  return json + "}";
}

}  // namespace nyxtest

#endif  // NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H
