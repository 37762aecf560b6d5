// The message values, the base64 codec and the message checksum. Codec and
// checksum are held against published answers (RFC 4648, the CRC-32 check
// value), not against values computed here.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"
#include "messaging/NYXMessage.h"
#include "messaging/WispMessage.h"

namespace {

std::string encode(const std::string& bytes) {
  return encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// Returns the decoded bytes, or "<invalid>" when the decoder reports a
// non-positive length for non-empty input.
std::string decode(const std::string& text) {
  int length = -99;
  auto bytes = decodeBase64(text, length);
  if (length <= 0) {
    return text.empty() && length == 0 ? "" : "<invalid>";
  }
  return std::string(reinterpret_cast<const char*>(bytes.get()), length);
}

TEST(Base64Test, MatchesTheRfc4648TestVectorsBothWays) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(encode(bytes), text) << bytes;
    EXPECT_EQ(decode(text), bytes) << text;
  }
}

TEST(Base64Test, EncodesLongInputOnOneLineAndDecodesItBack) {
  std::string bytes;
  for (int i = 0; i < 100; ++i) {
    bytes.push_back(static_cast<char>(i * 37));
  }
  const std::string text = encode(bytes);
  EXPECT_EQ(text.size(), 136u);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_EQ(decode(text), bytes);

  const std::string big(5000, '\xff');
  const std::string bigText = encode(big);
  EXPECT_EQ(bigText.find('\n'), std::string::npos);
  EXPECT_EQ(decode(bigText), big);
}

TEST(Base64Test, KeepsZeroBytesInPayloads) {
  const std::string bytes("\0a\0\0b\0", 6);
  EXPECT_EQ(encode(bytes), "AGEAAGIA");
  EXPECT_EQ(decode("AGEAAGIA"), bytes);
}

TEST(Base64Test, ReportsInvalidInputAsNonPositiveLength) {
  for (const char* text : {"!!!!", "%%%%%%%%", "Zg=!"}) {
    EXPECT_EQ(decode(text), "<invalid>") << text;
  }
}

TEST(MessageCrcTest, IsTheStandardCrc32RunningOverTopicThenPayload) {
  EXPECT_EQ(messageCrc32("123456789", ""), 0xCBF43926u);
  EXPECT_EQ(messageCrc32("", "123456789"), 0xCBF43926u);
  EXPECT_EQ(messageCrc32("1234", "56789"), 0xCBF43926u);
  EXPECT_EQ(messageCrc32("", ""), 0u);
}

TEST(WispMessageTest, PayloadTypeIsNyxExactlyForTopicsStartingWithThePrefix) {
  const std::pair<std::string, bool> cases[] = {
      {"cobalt.device.messaging.", true},   {"cobalt.device.messaging.app", true},
      {"cobalt.device.messaging", false},   {"cobalt.device.messagingX", false},
      {"xcobalt.device.messaging.", false}, {"", false},
      {"com.example.service", false},
  };
  for (const auto& [topic, nyx] : cases) {
    WispMessage message;
    message.setTopic(topic);
    EXPECT_EQ(message.getPayloadType() == WispPayloadType::NYX, nyx) << topic;
    EXPECT_EQ(message.getPayloadType() == WispPayloadType::Raw, !nyx) << topic;
  }
}

TEST(WispMessageTest, ComparesEveryFieldAndCopiesDeeply) {
  WispMessage original;
  original.setId("id");
  original.setDirectedCustomerId("customer");
  original.setTopic("topic");
  original.setPayload(std::string("a\0b", 3));
  EXPECT_TRUE(original == original);

  WispMessage copy(original);
  EXPECT_TRUE(copy == original);
  copy.setPayload("changed");
  EXPECT_EQ(original.getPayload(), std::string("a\0b", 3));

  using Setter = void (WispMessage::*)(const std::string&);
  for (Setter setter : {&WispMessage::setId, &WispMessage::setDirectedCustomerId,
                        &WispMessage::setTopic, &WispMessage::setPayload}) {
    WispMessage other;
    other = original;
    EXPECT_FALSE(other != original);
    (other.*setter)("different");
    EXPECT_TRUE(other != original);
  }
  WispMessage shorter = original;
  shorter.setPayload("a");
  EXPECT_NE(shorter, original);
}

WispMessage envelope(const std::string& json) {
  WispMessage message;
  message.setId("m1");
  message.setTopic(kNyxTopicPrefix + "app");
  message.setPayload(json);
  return message;
}

TEST(NYXMessageTest, BuildsTheDataMapFromSenderConsolidationKeyAndData) {
  struct Case {
    const char* envelope;
    std::map<std::string, std::string> data;
  };
  const Case cases[] = {
      {R"({"registrationId":"r","senderId":"s"})",
       {{"collapse_key", "do_not_collapse"}, {"from", "s"}}},
      {R"({"registrationId":"r","senderId":"s","consolidationKey":null})",
       {{"collapse_key", "do_not_collapse"}, {"from", "s"}}},
      {R"({"registrationId":"r","senderId":"s","consolidationKey":""})",
       {{"collapse_key", "do_not_collapse"}, {"from", "s"}}},
      {R"({"registrationId":"r","senderId":"s","consolidationKey":"k"})",
       {{"collapse_key", "k"}, {"from", "s"}}},
      {R"({"registrationId":"r","senderId":"s","data":{"from":"other","b":"2","a":"1"}})",
       {{"a", "1"}, {"b", "2"}, {"collapse_key", "do_not_collapse"}, {"from", "other"}}},
      {R"({"registrationId":"r","senderId":"s","consolidationKey":"k","data":{"collapse_key":"d"}})",
       {{"collapse_key", "d"}, {"from", "s"}}},
      {R"({"registrationId":"r","senderId":"s","data":null,"appInstanceInfo":null})",
       {{"collapse_key", "do_not_collapse"}, {"from", "s"}}},
  };
  for (const Case& c : cases) {
    const NYXMessage message = NYXMessage::fromEnvelope(envelope(c.envelope));
    EXPECT_EQ(message.getDataMap(), c.data) << c.envelope;
    EXPECT_EQ(message.getRegistrationId(), "r");
    EXPECT_EQ(message.getSenderId(), "s");
  }
}

TEST(NYXMessageTest, RefusesEnvelopesWithMissingOrWronglyTypedMembers) {
  const char* cases[] = {
      "",
      "not json",
      "[]",
      R"("text")",
      R"({"senderId":"s"})",
      R"({"registrationId":"r"})",
      R"({"registrationId":null,"senderId":"s"})",
      R"({"registrationId":1,"senderId":"s"})",
      R"({"registrationId":"r","senderId":["s"]})",
      R"({"registrationId":"r","senderId":"s","consolidationKey":5})",
      R"({"registrationId":"r","senderId":"s","appInfo":"com.app"})",
      R"({"registrationId":"r","senderId":"s","appInfo":{"service.name":1}})",
      R"({"registrationId":"r","senderId":"s","appInstanceInfo":[]})",
      R"({"registrationId":"r","senderId":"s","data":{"k":{"nested":"v"}}})",
      R"({"registrationId":"r","senderId":"s"} trailing)",
  };
  for (const char* text : cases) {
    EXPECT_THROW(NYXMessage::fromEnvelope(envelope(text)), std::runtime_error) << text;
  }
}

TEST(NYXMessageTest, RefusesRawTopics) {
  WispMessage message = envelope(R"({"registrationId":"r","senderId":"s"})");
  message.setTopic("com.example.service");
  try {
    NYXMessage::fromEnvelope(message);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "Cannot deserialize NYX Message from envelope with unsupported payload type");
  }
}

TEST(NYXMessageTest, MapGettersNameTheMissingKey) {
  NYXMessage message;
  message.setData("present", "1");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { message.getData("missing"); },
       "Attempted retrieval of non-existent data entry: missing"},
      {[&] { message.getAppInfo("service.name"); },
       "Attempted retrieval of non-existent app info entry: service.name"},
      {[&] { message.getAppInstanceInfo("x"); },
       "Attempted retrieval of non-existent app instance info entry: x"},
  };
  for (const auto& [call, text] : cases) {
    try {
      call();
      ADD_FAILURE() << "no exception for " << text;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), text);
    }
  }
  message.setData("present", "2");
  EXPECT_EQ(message.getData("present"), "2");
}

}  // namespace
