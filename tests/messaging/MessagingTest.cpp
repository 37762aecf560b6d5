// The messaging subsystem: unit tests over a fake HTTP client and a recording
// bus sender, and one poll cycle over a real bus and a local HTTP server
// (PollOverBusAndHttpTest, run as its own test: the bus handle is opened
// once per process).
#include <gtest/gtest.h>

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "daemon/common/Json.h"
#include "daemon/common/Termination.h"
#include "hbus.h"
#include "http/HttpErrors.h"
#include "messaging/Base64.h"
#include "messaging/MessageCrc.h"
#include "messaging/WispPollRequestHandler.h"
#include "tests/support/LocalHttpServer.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

const std::string kPage1 = "https://messaging.test/messages";
const std::string kPage2 = "https://messaging.test/next?page=2&x=%2F";
const std::string kApp = R"({"registrationId":"r","senderId":"s","appInfo":{"service.name":"a"})";

std::string base64(const std::string& bytes) {
  return encodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// One element of "messages"; directedJson is the JSON of "directedCustomerId"
// (left out when empty), crc the one to send (the right one when unset).
std::string messageJson(const std::string& id, const std::string& topic, const std::string& payload,
                        const std::string& directedJson = "",
                        std::optional<uint32_t> crc = std::nullopt) {
  return R"({"message":{"id":")" + id + R"(","topic":")" + topic + R"(","payload":")" +
         base64(payload) + "\"" +
         (directedJson.empty() ? "" : R"(,"directedCustomerId":)" + directedJson) + R"(,"crc":)" +
         std::to_string(crc ? *crc : messageCrc32(topic, payload)) + "}}";
}

// A page of comma-separated elements of "messages".
std::string pageJson(const std::string& elements, const std::string& nextPage = "") {
  return R"({"messages":[)" + elements + "]" +
         (nextPage.empty() ? "" : R"(,"nextPage":")" + nextPage + "\"") + "}";
}

// The value a receiving service gets in "wisp_message" or "nyx_message".
std::string deliveryJson(const std::string& id, const std::string& payload,
                         const std::string& directedId = "") {
  return R"({"id":")" + id + "\"" +
         (directedId.empty() ? "" : R"(,"directedId":")" + directedId + "\"") + R"(,"payload":")" +
         base64(payload) + "\"}";
}

// The outbound-message entry that reports one message's outcome.
std::string outboxEntry(const std::string& id, int status, bool retry = false) {
  return R"({"topic":"cobalt.messaging.response","payload":")" +
         base64(R"({"response":{"id":")" + id + R"(","status":)" + std::to_string(status) +
                R"(,"retry":)" + (retry ? "true" : "false") + "}}") +
         R"(","gunzip":false,"options":{"flushTime":1}})";
}

// Answers every attempt at a URL with its (status, body); status 0 throws
// IOError(body) instead, as does a URL with no answer.
class FakeHttpClient : public HttpClient {
 public:
  WebResponse perform(const WebRequest& request) override {
    requests.push_back(request);
    urls.push_back(request.getUrl());
    const auto [status, body] = pages[request.getUrl()];
    if (status == 0) {
      throw IOError(body);
    }
    WebResponse response;
    response.setStatusCode(status);
    response.setBody(body);
    return response;
  }
  void waitSeconds(unsigned int) override {}
  std::map<std::string, std::pair<uint32_t, std::string>> pages;
  std::vector<WebRequest> requests;
  std::vector<std::string> urls;
};

// Records every write and answers with the service's scripted statuses, then 0.
class RecordingSender : public IPCMessageSender {
 public:
  int send(const std::string& service, const std::string& property,
           const std::string& value) override {
    sent.push_back({service, property, value});
    auto& script = statuses[service];
    const int status = script.empty() ? 0 : script.front();
    if (!script.empty()) {
      script.pop_front();
    }
    return status;
  }
  std::map<std::string, std::deque<int>> statuses;
  std::vector<std::vector<std::string>> sent;  // service, property, value
};

class FakeSigner : public RequestSigner {
 public:
  const std::string& getDirectedId() const override { return id_; }
  void sign(WebRequest& request) override { request.setHeader("x-test-signed", "yes"); }
  std::string signPayload(const unsigned char*, size_t) override { return ""; }

 private:
  std::string id_ = "customer";
};

WispMessage makeMessage(const std::string& id, const std::string& topic, const std::string& payload,
                        const std::string& directed = "") {
  WispMessage message;
  message.setId(id);
  message.setTopic(topic);
  message.setPayload(payload);
  message.setDirectedCustomerId(directed);
  return message;
}

// The decoded bytes, or "<invalid>" when the decoder reports a failure.
std::string decoded(const std::string& text) {
  int length = -99;
  const auto bytes = decodeBase64(text, length);
  if (length < 0 || (length == 0 && !text.empty())) {
    return "<invalid>";
  }
  return length == 0 ? "" : std::string(reinterpret_cast<const char*>(bytes.get()), length);
}

TEST(CodecTest, MatchesPublishedAnswers) {
  // The RFC 4648 test vectors, and bytes with zeros.
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {std::string("\0a\0\0b\0", 6), "AGEAAGIA"}};
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(base64(bytes), text);
    EXPECT_EQ(decoded(text), bytes) << text;
  }
  for (const char* text : {"!!!!", "%%%%%%%%", "Zg=!"}) {
    EXPECT_EQ(decoded(text), "<invalid>") << text;
  }
  // The CRC-32 check value, running over topic then payload.
  EXPECT_EQ(messageCrc32("123456789", ""), 0xCBF43926u);
  EXPECT_EQ(messageCrc32("1234", "56789"), 0xCBF43926u);
  EXPECT_EQ(messageCrc32("", "123456789"), 0xCBF43926u);
}

class MessagingTest : public ::testing::Test {
 protected:
  MessagingTest() {
    root_.setConfig({{"url.devicemessaging.getmessages", kPage1}});
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
  const std::string next = R"("nextPage":")" + kPage2 + "\"}";
  // Nested 200,000 levels deep: read without exhausting the stack.
  const std::string deepArray = std::string(200000, '[') + std::string(200000, ']');
  // Page 1, then the results of successive calls, the URLs asked for and the
  // error logged; page 2 is the last, with messages.
  const std::tuple<std::string, std::vector<bool>, std::vector<std::string>, std::string> cases[] =
      {
          {R"({"messages": []})", {true, false, false}, {kPage1}, ""},
          {R"({"messages":[],)" + next, {true, true, false}, {kPage1, kPage2}, ""},
          {"{" + next, {true, true, false}, {kPage1, kPage2}, ""},
          {R"({"messages": null, "nextPage": null})", {false, false}, {kPage1}, ""},
          {"<html>busy</html>", {false}, {kPage1}, notJson},
          {R"({"messages": {}})", {false}, {kPage1}, notArray},
          {R"({"messages":"x",)" + next, {true, true, false}, {kPage1, kPage2}, notArray},
          {deepArray, {false}, {kPage1}, notJson},
          {R"({"other":)" + deepArray + "}", {false}, {kPage1}, ""},
      };
  client_->pages[kPage2] = {200, R"({"messages":[]})"};
  for (const auto& [page1, expected, expectedUrls, error] : cases) {
    SCOPED_TRACE(page1);
    client_->urls.clear();
    log_.clear();
    client_->pages[kPage1] = {200, page1};
    fetcher_->reset();
    std::list<WispMessage> messages;
    std::vector<bool> results;
    while (results.size() < expected.size()) {
      results.push_back(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages));
    }
    EXPECT_EQ(results, expected);
    EXPECT_EQ(client_->urls, expectedUrls);
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
  // An element, the payload of "m" when kept, the error logged when dropped.
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      {messageJson("m", "t", bytes), bytes, ""},
      {messageJson("m", "t", bytes, "", messageCrc32("t", "other")), std::nullopt, corrupt},
      {messageJson("m", "t", bytes, "", messageCrc32("T", bytes)), std::nullopt, corrupt},
      // An undecodable payload counts as empty; the CRC decides.
      {element(R"("id":"m","topic":"t","payload":"!!!!")" + crc), "", ""},
      {element(R"("id":"m","topic":"t","payload":"!!!!","crc":1)"), std::nullopt, corrupt},
      {"5", std::nullopt, "Dropped malformed message. Reason: element is not an object"},
      {element(R"("id":7,"topic":"t","payload":"")" + crc), std::nullopt,
       R"(Dropped malformed message. Reason: "id" is not a string)"},
      {element(R"("id":"m","payload":"")" + crc), std::nullopt, bad + R"(missing "topic")"},
      {element(R"("id":"m","topic":"t","payload":null)" + crc), std::nullopt,
       bad + R"(missing "payload")"},
      {element(R"("id":"m","topic":"t","payload":"","directedCustomerId":1)" + crc), std::nullopt,
       bad + R"("directedCustomerId" is not a string)"},
      {element(R"("id":"m","topic":"t","payload":"","crc":-1)"), std::nullopt,
       bad + R"("crc" is missing or not an unsigned 32-bit number)"},
  };
  for (const auto& [middle, kept, error] : cases) {
    SCOPED_TRACE(middle);
    log_.clear();
    client_->pages[kPage1] = {200, pageJson(messageJson("a", "t", "1") + "," + middle + "," +
                                            messageJson("b", "t", "2"))};
    fetcher_->reset();
    std::list<WispMessage> messages;
    EXPECT_TRUE(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages));
    std::vector<std::string> received;
    for (const auto& message : messages) {
      received.push_back(message.getId() + "=" + message.getPayload());
    }
    EXPECT_EQ(received, (kept ? std::vector<std::string>{"a=1", "m=" + *kept, "b=2"}
                              : std::vector<std::string>{"a=1", "b=2"}));
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
    std::string service, property, jsonId, payload, directed;
    const S& outcome;
    int code;
  };
  const Case cases[] = {
      {makeMessage("m\"2", "svc", bytes, "cust"), 0, "svc", "wisp_message", R"(m\"2)", bytes,
       "cust", S::Dispatched, 1},
      {makeMessage("m1", "cobalt.device.messaging", ""), 3, "cobalt.device.messaging",
       "wisp_message", "m1", "", "", S::Unhandled, 103},
      {makeMessage("m1", "svc", "x"), 1, "svc", "wisp_message", "m1", "x", "", S::Unresponsive,
       200},
      {makeMessage("m1", kNyxTopicPrefix + "app", kApp + "}"), 8, "a", "nyx_message", "m1",
       R"({"collapse_key":"do_not_collapse","from":"s"})", "", S::Unhandled, 103},
      {makeMessage("m1", kNyxTopicPrefix, kApp + R"(,"consolidationKey":"k","data":{"b":"1"}})",
                   "c"),
       -5, "a", "nyx_message", "m1", R"({"b":"1","collapse_key":"k","from":"s"})", "c",
       S::Unresponsive, 200},
      {makeMessage("m1", kNyxTopicPrefix,
                   kApp + R"(,"consolidationKey":"k","data":{"from":"o","collapse_key":"d"}})"),
       0, "a", "nyx_message", "m1", R"({"collapse_key":"d","from":"o"})", "", S::Dispatched, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    sender_->sent.clear();
    sender_->statuses = {{c.service, {c.busStatus}}, {"com.corvid.outbox", {c.busStatus}}};
    EXPECT_EQ(dispatcher_->dispatch(c.message), c.outcome);
    EXPECT_EQ(purger_->purge(c.message, c.outcome), c.busStatus == 0);
    EXPECT_EQ(
        sender_->sent,
        (std::vector<std::vector<std::string>>{
            {c.service, c.property, deliveryJson(c.jsonId, c.payload, c.directed)},
            {"com.corvid.outbox", "queueMessage", outboxEntry(c.jsonId, c.code, c.code == 200)}}));
  }
  sender_->sent.clear();
  const std::string refused[] = {R"({"senderId":"s","appInfo":{"service.name":"a"}})",
                                 R"({"registrationId":"r","senderId":"s"})",
                                 kApp + R"(,"data":{"k":{"nested":"v"}}})",
                                 kApp + R"(,"consolidationKey":5})", "[]"};
  for (const std::string& envelope : refused) {
    EXPECT_THROW(dispatcher_->dispatch(makeMessage("m1", kNyxTopicPrefix, envelope)),
                 std::runtime_error)
        << envelope;
  }
  EXPECT_TRUE(sender_->sent.empty());
}

TEST_F(MessagingTest, PollRepeatsUnresponsiveDeliveriesAfterEachPageAndEndsOnAnIoError) {
  const std::vector<std::string> firstPage = {"svc.busy:m1", "svc.ok:m2", "purge:m2/1"};
  const std::string ioError = "ERROR WispPollRequestHandler: IOError: ";
  struct Case {
    std::vector<int> busy;  // answers of svc.busy, in turn
    std::pair<uint32_t, std::string> page2;
    std::vector<std::string> laterTraffic;
    std::string error;
  };
  const std::pair<uint32_t, std::string> page2 = {200, pageJson(messageJson("m3", "svc.ok", "c"))};
  const Case cases[] = {
      {{1, 0}, page2, {"svc.busy:m1", "purge:m1/1", "svc.ok:m3", "purge:m3/1"}, ""},
      {{1, 3}, page2, {"svc.busy:m1", "purge:m1/103", "svc.ok:m3", "purge:m3/1"}, ""},
      // Never final: delivered again after each page, never purged.
      {{1, 1, 1}, page2, {"svc.busy:m1", "svc.ok:m3", "purge:m3/1"}, ""},
      {{1}, {0, "Couldn't connect"}, {}, ioError + "Couldn't connect"},
      {{1}, {503, "busy"}, {}, ioError + "Status Code: 503\n"},
  };
  client_->pages[kPage1] = {
      200, pageJson(messageJson("m1", "svc.busy", "a") + "," + messageJson("m2", "svc.ok", "b"),
                    kPage2)};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error + ::testing::PrintToString(c.busy));
    sender_->sent.clear();
    client_->requests.clear();
    client_->urls.clear();
    log_.clear();
    sender_->statuses["svc.busy"] = {c.busy.begin(), c.busy.end()};
    client_->pages[kPage2] = c.page2;
    handler_->handlePoll(WispPollReason::ManualSync);
    std::vector<std::string> traffic = firstPage;
    traffic.insert(traffic.end(), c.laterTraffic.begin(), c.laterTraffic.end());
    EXPECT_EQ(busTraffic(), traffic);
    // Each cycle starts at the configured URL, a failing page is tried four
    // times, and the call after the last page with messages makes no request.
    std::vector<std::string> expectedUrls(c.error.empty() ? 2 : 5, kPage2);
    expectedUrls[0] = kPage1;
    ASSERT_EQ(client_->urls, expectedUrls);
    for (const auto& request : client_->requests) {
      EXPECT_EQ(request.getMethod(), RequestMethod::GET);
      EXPECT_EQ(request.getMaxRetries(), 3u);
      EXPECT_EQ(request.getHeaders(), (HeaderMap{{"accept", "application/json"},
                                                 {"x-test-signed", "yes"},
                                                 {"x-zvo-reason", "ManualSync"}}));
    }
    EXPECT_EQ(log_.count(c.error.empty() ? "IOError" : c.error), c.error.empty() ? 0u : 1u);
  }
  // A stop ends the cycle after the page in hand.
  sender_->sent.clear();
  client_->urls.clear();
  sender_->statuses["svc.busy"] = {0};
  terminationRequested.store(true);
  handler_->handlePoll(WispPollReason::NUDGE);
  terminationRequested.store(false);
  EXPECT_EQ(client_->urls, std::vector<std::string>{kPage1});
  EXPECT_EQ(busTraffic(),
            (std::vector<std::string>{"svc.busy:m1", "purge:m1/1", "svc.ok:m2", "purge:m2/1"}));
  client_->pages[kPage2] = {404, ""};  // any other failure ends the task
  EXPECT_THROW(handler_->handlePoll(WispPollReason::NUDGE), ClientError);
}

// Publishes one string property on the bus and records every value written
// into it, answering with the scripted statuses, then 0.
class RecordingService {
 public:
  RecordingService(const char* service, const char* property, std::vector<int> statuses = {})
      : statuses_(std::move(statuses)) {
    int status = -1;
    handle_.reset(HbusInitEx(service, &status));
    if (status != 0 || handle_ == nullptr ||
        HbusRegisterStringProperty(handle_.get(), property, nullptr, &onWrite, this) != 0 ||
        HbusStartListener(handle_.get()) != 0) {
      throw std::runtime_error(std::string("cannot publish ") + service);
    }
  }
  std::vector<std::string> values() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  // Runs on the bus listener thread.
  static int onWrite(HbusHandleStruct*, const char*, const char* value, void* data) {
    auto* self = static_cast<RecordingService*>(data);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->values_.push_back(value != nullptr ? value : "(null)");
    const size_t n = self->values_.size();
    return n <= self->statuses_.size() ? self->statuses_[n - 1] : 0;
  }
  std::unique_ptr<HbusHandleStruct, decltype(&HbusClose)> handle_{nullptr, HbusClose};
  mutable std::mutex mutex_;
  std::vector<std::string> values_;
  std::vector<int> statuses_;
};

TEST(PollOverBusAndHttpTest, DeliversTwoPagesAndPurgesFinalOutcomes) {
  PrivateBus bus;
  NyxRoot root;
  LocalHttpServer::Options options;
  options.signingSecret = "device-secret";
  LocalHttpServer server({}, options);
  const std::string raw("raw\0bytes", 9);
  const std::string app = R"({"registrationId":"r","senderId":"s",)"
                          R"("appInfo":{"service.name":"com.example.app"},"data":{"t":"hi"}})";
  HttpAnswer page1(200, {},
                   pageJson(messageJson("m1", "com.example.receiver", raw) + "," +
                                messageJson("m2", kNyxTopicPrefix + "app", app, R"("cust-1")"),
                            server.url("/messages/2?cursor=abc")));
  HttpAnswer page2(200, {},
                   pageJson(messageJson("m3", "com.example.nobody", "x") + "," +
                            messageJson("m4", "com.example.receiver", "last", "null")));
  page1.path = "/messages";
  page2.path = "/messages/2";
  server.setScript({page1, page2});
  root.setConfig({{"url.devicemessaging.getmessages", server.url("/messages")}});
  root.writePlatformFile("device-serial", "SERIAL-0099\n");
  root.writePlatformFile("device-secret", "device-secret\n");
  root.writePlatformFile("customer", "customer-7\n");
  // Busy for m1 at first, so m1 goes out again after page 2, ahead of its own.
  RecordingService receiver("com.example.receiver", "wisp_message", {42});
  RecordingService appService("com.example.app", "nyx_message");
  RecordingService outbox("com.corvid.outbox", "queueMessage");

  WispPollRequestHandler("customer-7").handlePoll(WispPollReason::NUDGE);

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].target, "/messages");
  EXPECT_EQ(requests[1].target, "/messages/2?cursor=abc");
  EXPECT_EQ(requests[0].signature + requests[1].signature, "validvalid");
  EXPECT_EQ(receiver.values(),
            (std::vector<std::string>{deliveryJson("m1", raw), deliveryJson("m1", raw),
                                      deliveryJson("m4", "last")}));
  EXPECT_EQ(appService.values(),
            std::vector<std::string>{deliveryJson(
                "m2", R"({"collapse_key":"do_not_collapse","from":"s","t":"hi"})", "cust-1")});
  EXPECT_EQ(outbox.values(),
            (std::vector<std::string>{outboxEntry("m2", 1), outboxEntry("m1", 1),
                                      outboxEntry("m3", 103), outboxEntry("m4", 1)}));
}

}  // namespace
}  // namespace nyxtest
