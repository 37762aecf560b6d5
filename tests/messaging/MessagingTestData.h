// Server pages and bus values for the messaging suites, written the way the
// messaging server and the outbound-message service expect them.
#ifndef NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H
#define NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"

namespace nyxtest {

inline std::string base64(const std::string& bytes) {
  return encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// One element of "messages"; directedJson is the JSON of "directedCustomerId"
// (left out when empty), crc the one to send (the right one when unset).
inline std::string messageJson(const std::string& id, const std::string& topic,
                               const std::string& payload, const std::string& directedJson = "",
                               std::optional<uint32_t> crc = std::nullopt) {
  return R"({"message":{"id":")" + id + R"(","topic":")" + topic + R"(","payload":")" +
         base64(payload) + "\"" +
         (directedJson.empty() ? "" : R"(,"directedCustomerId":)" + directedJson) + R"(,"crc":)" +
         std::to_string(crc ? *crc : messageCrc32(topic, payload)) + "}}";
}

inline std::string pageJson(const std::vector<std::string>& elements,
                            const std::string& nextPage = "") {
  std::string json = R"({"messages":[)";
  for (size_t i = 0; i < elements.size(); ++i) {
    json += (i ? "," : "") + elements[i];
  }
  return json + "]" + (nextPage.empty() ? "" : R"(,"nextPage":")" + nextPage + "\"") + "}";
}

// The value a receiving service gets in "wisp_message" or "nyx_message".
inline std::string deliveryJson(const std::string& id, const std::string& payload,
                                const std::string& directedId = "") {
  return R"({"id":")" + id + "\"" +
         (directedId.empty() ? "" : R"(,"directedId":")" + directedId + "\"") + R"(,"payload":")" +
         base64(payload) + "\"}";
}

// The outbound-message entry that reports one message's outcome.
inline std::string outboxEntry(const std::string& id, int status, bool retry = false) {
  return R"({"topic":"cobalt.messaging.response","payload":")" +
         base64(R"({"response":{"id":")" + id + R"(","status":)" + std::to_string(status) +
                R"(,"retry":)" + (retry ? "true" : "false") + "}}") +
         R"(","gunzip":false,"options":{"flushTime":1}})";
}

}  // namespace nyxtest

#endif  // NYX_TESTS_MESSAGING_MESSAGING_TEST_DATA_H
