// The messaging subsystem over a fake HTTP client and a recording bus sender.
#include <gtest/gtest.h>

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "daemon/common/Json.h"
#include "daemon/common/Termination.h"
#include "http/HttpErrors.h"
#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"
#include "messaging/WispPollRequestHandler.h"
#include "tests/support/Fakes.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

const std::string kPage1 = "https://messaging.test/messages";
const std::string kPage2 = "https://messaging.test/next?page=2&x=%2F";
const std::string kApp = R"({"registrationId":"r","senderId":"s","appInfo":{"service.name":"a"})";

std::string base64(const std::string& bytes) {
  return encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// One element of "messages", with its right crc.
std::string messageJson(const std::string& id, const std::string& topic,
                        const std::string& payload) {
  return R"({"message":{"id":")" + id + R"(","topic":")" + topic + R"(","payload":")" +
         base64(payload) + R"(","crc":)" + std::to_string(messageCrc32(topic, payload)) + "}}";
}

// A page of comma-separated elements of "messages".
std::string pageJson(const std::string& elements, const std::string& nextPage = "") {
  return R"({"messages":[)" + elements + "]" +
         (nextPage.empty() ? "" : R"(,"nextPage":")" + nextPage + "\"") + "}";
}

// A message with the id m"1, which the JSON written for it must escape.
WispMessage makeMessage(const std::string& topic, const std::string& payload,
                        const std::string& directed = "") {
  WispMessage message;
  message.setId("m\"1");
  message.setTopic(topic);
  message.setPayload(payload);
  message.setDirectedCustomerId(directed);
  return message;
}

// The decoded bytes; nothing when the decoder reports a failure.
std::string decoded(const std::string& text) {
  int length = -99;
  const auto bytes = decodeBase64(text, length);
  return length > 0 ? std::string(reinterpret_cast<const char*>(bytes.get()), length) : "";
}

// Edge and long inputs against Python's zlib and base64: the CRC-32 of the
// bytes, running over a topic and a payload that split them, and that of
// their one-line base64 text, which decodes back to them.
TEST(CodecTest, MatchesPythonOnEdgeAndLongInputs) {
  // bytes((i * step + (i >> 8) * carry) & 0xff for i in range(length))
  auto sequence = [](size_t length, size_t step, size_t carry) {
    std::string bytes;
    for (size_t i = 0; i < length; ++i) {
      bytes.push_back(static_cast<char>((i * step + (i >> 8) * carry) & 0xff));
    }
    return bytes;
  };
  const std::tuple<std::string, uint32_t, uint32_t> cases[] = {
      {std::string(), 0x00000000u, 0x00000000u},
      {sequence(256, 1, 0), 0x29058C73u, 0xC30BBF65u},
      {sequence(102400, 1, 0), 0x9A0E0C8Cu, 0xB6658585u},
      {std::string(1, '\0'), 0xD202EF8Du, 0x4134031Cu},
      {std::string(57, '\0'), 0xDDD1DE1Cu, 0x3725E770u},
      {std::string(1, '\xff'), 0xFF000000u, 0xBA2B1A0Eu},
      {std::string(4, '\xff'), 0xFFFFFFFFu, 0x52852CC2u},
      {std::string(100, '\xff'), 0x03D28681u, 0xC6F977D4u},
      {sequence(299, 167, 1), 0xDA37AD58u, 0x151EE046u},
      {sequence(4095, 167, 1), 0x9645B394u, 0x776C2487u},
      {sequence(4096, 167, 1), 0x669F1409u, 0xA9E50CA8u},
      {sequence(65536, 167, 1), 0x5B5A2981u, 0xBE8F8724u},
  };
  for (const auto& [bytes, crc, textCrc] : cases) {
    SCOPED_TRACE(bytes.size());
    const std::string text = base64(bytes);
    const size_t half = bytes.size() / 2;
    EXPECT_EQ(messageCrc32(bytes.substr(0, half), bytes.substr(half)), crc);
    EXPECT_EQ(messageCrc32("", text), textCrc);
    EXPECT_EQ(decoded(text), bytes);
  }
}

class MessagingTest : public ::testing::Test {
 protected:
  MessagingTest() {
    root_.setConfig({{"url.devicemessaging.getmessages", kPage1}});
    // Each URL's (status, body); asking for any other URL fails the test.
    client_->answer = [this](const WebRequest& request) {
      const auto& [status, body] = pages_.at(request.getUrl());
      return response(status, body);
    };
    fetcher_ = std::make_shared<WispMessageFetcher>(client_, std::make_shared<FakeSigner>());
    handler_ = std::make_unique<WispPollRequestHandler>(fetcher_, dispatcher_, purger_);
  }

  // "service:id" for a delivery, "purge:id/status" for an outbound entry.
  std::vector<std::string> busTraffic() const {
    std::vector<std::string> result;
    for (const auto& sent : sender_->sent) {
      rapidjson::Document value, purge;
      value.Parse(sent[2].c_str());
      if (sent[0] != "com.corvid.outbox") {
        result.push_back(sent[0] + ":" + value["id"].GetString());
      } else if (!purge.Parse(decoded(value["payload"].GetString()).c_str()).HasParseError()) {
        result.push_back(std::string("purge:") + purge["response"]["id"].GetString() + "/" +
                         std::to_string(purge["response"]["status"].GetInt()));
      }
    }
    return result;
  }

  NyxRoot root_;
  LogCapture log_;
  std::map<std::string, std::pair<uint32_t, std::string>> pages_;
  std::shared_ptr<FakeHttpClient> client_ = std::make_shared<FakeHttpClient>();
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  std::shared_ptr<WispMessageFetcher> fetcher_;
  std::shared_ptr<WispMessageDispatcher> dispatcher_ =
      std::make_shared<WispMessageDispatcher>(sender_);
  std::shared_ptr<WispMessagePurger> purger_ = std::make_shared<WispMessagePurger>(sender_);
  std::unique_ptr<WispPollRequestHandler> handler_;
};

TEST_F(MessagingTest, FetchPagesUntilNoNextPageWithOneCallMoreAfterMessages) {
  const std::string notJson = "ERROR WispMessageFetcher: Received a page that is not a JSON object";
  const std::string notArray =
      R"(ERROR WispMessageFetcher: Ignored "messages" that is not an array.)";
  // Page 1, then the results of successive calls and the error logged; page
  // 2 is the last, with messages.
  const std::tuple<std::string, std::vector<bool>, std::string> cases[] = {
      {R"({"messages":"x","nextPage":")" + kPage2 + "\"}", {true, true, false}, notArray},
      {R"({"messages": null, "nextPage": null})", {false, false}, ""},
      {"<html>busy</html>", {false}, notJson},
      {R"({"messages": {}})", {false}, notArray},
      // Nested 200,000 levels deep: read without exhausting the stack.
      {std::string(200000, '[') + std::string(200000, ']'), {false}, notJson},
  };
  pages_[kPage2] = {200, R"({"messages":[]})"};
  for (const auto& [page1, expected, error] : cases) {
    SCOPED_TRACE(page1);
    log_.clear();
    pages_[kPage1] = {200, page1};
    fetcher_->reset();
    std::list<WispMessage> messages;
    std::vector<bool> results;
    while (results.size() < expected.size()) {
      results.push_back(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages));
    }
    EXPECT_EQ(results, expected);
    EXPECT_EQ(log_.count("ERROR"), error.empty() ? 0u : 1u);
    EXPECT_TRUE(error.empty() || log_.count(error) == 1u);
  }
}

TEST_F(MessagingTest, FetchKeepsMessagesWhoseCrcMatchesAndDropsBadElementsAlone) {
  const std::string bytes("pay\0load\xff", 9);
  const std::string crc = R"(,"crc":)" + std::to_string(messageCrc32("t", ""));
  const std::string corrupt = "Received corrupted message. MessageID: m MessageTopic: t";
  const std::string bad = "Dropped malformed message. MessageID: m Reason: ";
  auto element = [](const std::string& members) { return R"({"message":{)" + members + "}}"; };
  // An element, "payload/directed id" of "m" when kept, the error logged
  // when dropped.
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      {messageJson("m", "t", bytes), bytes + "/", ""},
      {element(R"("id":"m","topic":"t","payload":"","crc":1)"), std::nullopt, corrupt},
      // An undecodable payload counts as empty; the CRC decides.
      {element(R"("id":"m","topic":"t","payload":"!!!!")" + crc), "/", ""},
      {"5", std::nullopt, "Dropped malformed message. Reason: element is not an object"},
      {element(R"("id":7,"topic":"t","payload":"")" + crc), std::nullopt,
       R"(Dropped malformed message. Reason: "id" is not a string)"},
      {element(R"("id":"m","payload":"")" + crc), std::nullopt, bad + R"(missing "topic")"},
      {element(R"("id":"m","topic":"t","payload":"","directedCustomerId":null)" + crc), "/", ""},
      {element(R"("id":"m","topic":"t","payload":"","directedCustomerId":"c")" + crc), "/c", ""},
      {element(R"("id":"m","topic":"t","payload":"","directedCustomerId":1)" + crc), std::nullopt,
       bad + R"("directedCustomerId" is not a string)"},
      {element(R"("id":"m","topic":"t","payload":"","crc":-1)"), std::nullopt,
       bad + R"("crc" is missing or not an unsigned 32-bit number)"},
  };
  for (const auto& [middle, kept, error] : cases) {
    SCOPED_TRACE(middle);
    log_.clear();
    pages_[kPage1] = {200, pageJson(messageJson("a", "t", "1") + "," + middle + "," +
                                    messageJson("b", "t", "2"))};
    fetcher_->reset();
    std::list<WispMessage> messages;
    EXPECT_TRUE(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages));
    std::vector<std::string> received;
    for (const auto& message : messages) {
      received.push_back(message.getId() + "=" + message.getPayload() + "/" +
                         message.getDirectedCustomerId());
    }
    EXPECT_EQ(received, (kept ? std::vector<std::string>{"a=1/", "m=" + *kept, "b=2/"}
                              : std::vector<std::string>{"a=1/", "b=2/"}));
    EXPECT_EQ(log_.count("ERROR"), error.empty() ? 0u : 1u);
    EXPECT_TRUE(error.empty() || log_.count("ERROR WispMessageFetcher: " + error) == 1u);
  }
}

TEST_F(MessagingTest, DispatchWritesTheDeliveryEnvelopeAndThePurgeReportsTheOutcome) {
  using S = WispDispatchStatus;
  const std::string bytes("x\0y", 3);
  struct Case {
    WispMessage message;
    int busStatus;
    std::string service, property, payload;  // where and what is delivered
    const S& outcome;
    std::string logged;  // the outcome's log line
  };
  const Case cases[] = {
      {makeMessage("svc", bytes, "cust"), 0, "svc", "wisp_message", bytes, S::Dispatched,
       R"(INFO WispMessageDispatcher: Dispatched WISP message. ID: m"1 Topic: svc)"},
      {makeMessage("cobalt.device.messaging", ""), 3, "cobalt.device.messaging", "wisp_message", "",
       S::Unhandled,
       "ERROR WispMessageDispatcher: WISP Topic unhandled or missing property. Topic: "
       "cobalt.device.messaging Property: wisp_message"},
      {makeMessage("svc", "x"), 1, "svc", "wisp_message", "x", S::Unresponsive,
       "WARN WispMessageDispatcher: Service unresponsive. Topic: svc Status: 1"},
      {makeMessage(kNyxTopicPrefix + "app", kApp + "}"), 8, "a", "nyx_message",
       R"({"collapse_key":"do_not_collapse","from":"s"})", S::Unhandled,
       "ERROR WispMessageDispatcher: Service unroutable or missing property. Service: a "
       "Property: nyx_message"},
      {makeMessage(kNyxTopicPrefix, kApp + R"(,"consolidationKey":"k","data":{"b":"1"}})", "c"), -5,
       "a", "nyx_message", R"({"b":"1","collapse_key":"k","from":"s"})", S::Unresponsive,
       "WARN WispMessageDispatcher: Service unresponsive. Service: a Status: -5"},
      {makeMessage(kNyxTopicPrefix,
                   kApp + R"(,"consolidationKey":"k","data":{"from":"o","collapse_key":"d"}})"),
       0, "a", "nyx_message", R"({"collapse_key":"d","from":"o"})", S::Dispatched,
       R"(INFO WispMessageDispatcher: Dispatched NYX message. ID: m"1 Service: a)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    sender_->sent.clear();
    log_.clear();
    sender_->statuses = {{c.service, {c.busStatus}}, {"com.corvid.outbox", {c.busStatus}}};
    EXPECT_EQ(dispatcher_->dispatch(c.message), c.outcome);
    EXPECT_EQ(log_.count(c.logged), 1u);
    EXPECT_EQ(purger_->purge(c.message, c.outcome), c.busStatus == 0);
    // The delivery a receiving service gets, then the outbound-message entry
    // that reports the outcome.
    const std::string directed = c.message.getDirectedCustomerId();
    const std::string report = R"({"response":{"id":"m\"1","status":)" +
                               std::to_string(c.outcome.code()) + R"(,"retry":)" +
                               (c.outcome.retry() ? "true" : "false") + "}}";
    EXPECT_EQ(
        sender_->sent,
        (std::vector<std::vector<std::string>>{
            {c.service, c.property,
             R"({"id":"m\"1")" + (directed.empty() ? "" : R"(,"directedId":")" + directed + "\"") +
                 R"(,"payload":")" + base64(c.payload) + "\"}"},
            {"com.corvid.outbox", "queueMessage",
             R"({"topic":"cobalt.messaging.response","payload":")" + base64(report) +
                 R"(","gunzip":false,"options":{"flushTime":1}})"}}));
  }
  sender_->sent.clear();
  const std::string refused[] = {R"({"senderId":"s","appInfo":{"service.name":"a"}})",
                                 R"({"registrationId":"r","senderId":"s"})",
                                 kApp + R"(,"data":{"k":{"nested":"v"}}})",
                                 kApp + R"(,"consolidationKey":5})", "[]"};
  for (const std::string& envelope : refused) {
    EXPECT_THROW(dispatcher_->dispatch(makeMessage(kNyxTopicPrefix, envelope)), std::runtime_error)
        << envelope;
  }
  EXPECT_TRUE(sender_->sent.empty());
}

TEST_F(MessagingTest, PollRepeatsUnresponsiveDeliveriesAfterEachPageAndEndsOnAStop) {
  const std::vector<std::string> firstPage = {"svc.busy:m1", "svc.ok:m2", "purge:m2/1"};
  struct Case {
    std::vector<int> busy;  // answers of svc.busy, in turn
    bool stop;              // requested while the first page is in hand
    std::vector<std::string> laterTraffic;
  };
  const Case cases[] = {
      {{1, 3}, false, {"svc.busy:m1", "purge:m1/103", "svc.ok:m3", "purge:m3/1"}},
      // Never final: delivered again after each page, never purged.
      {{1, 1, 1}, false, {"svc.busy:m1", "svc.ok:m3", "purge:m3/1"}},
      // A stop ends the cycle after the page in hand.
      {{1}, true, {}},
  };
  pages_[kPage1] = {
      200, pageJson(messageJson("m1", "svc.busy", "a") + "," + messageJson("m2", "svc.ok", "b"),
                    kPage2)};
  pages_[kPage2] = {200, pageJson(messageJson("m3", "svc.ok", "c"))};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.busy));
    sender_->sent.clear();
    client_->requests.clear();
    sender_->statuses["svc.busy"] = {c.busy.begin(), c.busy.end()};
    terminationRequested.store(c.stop);
    handler_->handlePoll(WispPollReason::ManualSync);
    terminationRequested.store(false);
    std::vector<std::string> traffic = firstPage;
    traffic.insert(traffic.end(), c.laterTraffic.begin(), c.laterTraffic.end());
    EXPECT_EQ(busTraffic(), traffic);
    // Page 1 once (the traffic shows which page came first), then page 2
    // unless stopped; the call after the last page makes no request.
    EXPECT_EQ(client_->requests.size(), c.stop ? 1u : 2u);
  }
  pages_[kPage2] = {404, ""};  // any other failure ends the task
  EXPECT_THROW(handler_->handlePoll(WispPollReason::NUDGE), ClientError);
}

}  // namespace
}  // namespace nyxtest
