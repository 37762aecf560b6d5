// The fetch protocol against a scripted server: paging and the value that
// tells the poll cycle to go on, the request on the wire, the CRC check and
// the handling of malformed answers.
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "messaging/WispMessageFetcher.h"
#include "tests/messaging/MessagingFakes.h"
#include "tests/messaging/MessagingTestData.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

class FetcherTest : public ::testing::Test {
 protected:
  FetcherTest() {
    root_.setConfig({{"url.devicemessaging.getmessages", kFirstPageUrl}});
    fetcher_ = std::make_unique<WispMessageFetcher>(client_, std::make_shared<FakeSigner>());
  }

  std::vector<std::string> ids() const {
    std::vector<std::string> result;
    for (const auto& message : messages_) {
      result.push_back(message.getId());
    }
    return result;
  }

  NyxRoot root_;
  LogCapture log_;
  std::shared_ptr<FakeHttpClient> client_ = std::make_shared<FakeHttpClient>();
  std::unique_ptr<WispMessageFetcher> fetcher_;
  std::list<WispMessage> messages_;
};

TEST_F(FetcherTest, PagesUntilAnAnswerWithoutNextPageAndOneCallMoreAfterMessages) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> pages;  // URL, body
    std::vector<bool> results;                               // of successive calls
    std::vector<std::string> urls;                           // requested, in order
  };
  const std::string p1 = kFirstPageUrl;
  const std::string p2 = "https://messaging.test/next?page=2&x=%2F";
  const Case cases[] = {
      {"empty messages", {{p1, R"({"messages": []})"}}, {true, false, false}, {p1}},
      {"next page only",
       {{p1, R"({"nextPage":")" + p2 + "\"}"}, {p2, "{}"}},
       {true, false, false},
       {p1, p2}},
      {"empty object", {{p1, "{}"}}, {false, false}, {p1}},
      {"null next page", {{p1, R"({"nextPage": null})"}}, {false}, {p1}},
      {"null messages", {{p1, R"({"messages": null, "nextPage": null})"}}, {false}, {p1}},
      {"two pages with messages",
       {{p1, R"({"messages":[],"nextPage":")" + p2 + "\"}"}, {p2, R"({"messages":[]})"}},
       {true, true, false},
       {p1, p2}},
      {"not JSON", {{p1, "<html>busy</html>"}}, {false}, {p1}},
      {"empty body", {{p1, ""}}, {false}, {p1}},
      {"array body", {{p1, "[]"}}, {false}, {p1}},
      {"messages not an array", {{p1, R"({"messages": {}})"}}, {false}, {p1}},
      {"messages not an array, next page honoured",
       {{p1, R"({"messages":"x","nextPage":")" + p2 + "\"}"}, {p2, "{}"}},
       {true, false},
       {p1, p2}},
      {"next page not a string", {{p1, R"({"nextPage": 5})"}}, {false}, {p1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    client_->replies.clear();
    client_->requests.clear();
    for (const auto& [url, body] : c.pages) {
      client_->answer(url, body);
    }
    fetcher_->reset();
    std::vector<bool> results;
    for (size_t i = 0; i < c.results.size(); ++i) {
      results.push_back(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_));
    }
    EXPECT_EQ(results, c.results);
    EXPECT_EQ(client_->urls(), c.urls);
  }
}

TEST_F(FetcherTest, LogsAnswersItCannotRead) {
  client_->answer(kFirstPageUrl, "<html>");
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  EXPECT_EQ(log_.count("ERROR WispMessageFetcher: Received a page that is not a JSON object"), 1u);
  client_->answer(kFirstPageUrl, R"({"messages": 7})");
  fetcher_->reset();
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  EXPECT_TRUE(
      log_.contains("ERROR WispMessageFetcher: Ignored \"messages\" that is not an array."));
}

TEST_F(FetcherTest, SendsASignedGetWithTheReasonAndThreeRetries) {
  client_->answer(kFirstPageUrl, "{}");
  fetcher_->fetchNextPage(WispPollReason::AntiEntropy, messages_);
  ASSERT_EQ(client_->requests.size(), 1u);
  const WebRequest& request = client_->requests[0];
  EXPECT_EQ(request.getMethod(), RequestMethod::GET);
  EXPECT_EQ(request.getMaxRetries(), 3u);
  EXPECT_EQ(request.getBody(), "");
  const HeaderMap expected = {
      {"accept", "application/json"}, {"x-test-signed", "yes"}, {"x-zvo-reason", "AntiEntropy"}};
  EXPECT_EQ(request.getHeaders(), expected);
}

TEST_F(FetcherTest, ResetReadsTheConfiguredUrlAgain) {
  const std::string p2 = "https://messaging.test/p2";
  client_->answer(kFirstPageUrl, R"({"nextPage":")" + p2 + "\"}");
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  writeFile(root_.file("etc/nyx-host/dynconfig"),
            "url.devicemessaging.getmessages=https://other.test/m\n");
  client_->answer("https://other.test/m", "{}");
  fetcher_->reset();
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  EXPECT_EQ(client_->urls(), (std::vector<std::string>{kFirstPageUrl, "https://other.test/m"}));
}

TEST_F(FetcherTest, FailsWithoutAConfiguredUrl) {
  writeFile(root_.file("etc/nyx-host/dynconfig"), "");
  auto make = [] { WispMessageFetcher(std::make_shared<FakeHttpClient>(), nullptr); };
  EXPECT_THROW(
      {
        try {
          make();
        } catch (const std::runtime_error& error) {
          EXPECT_STREQ(error.what(), "Failed to get device messaging URL from dynconfig.");
          throw;
        }
      },
      std::runtime_error);
  EXPECT_THROW(fetcher_->reset(), std::runtime_error);
}

TEST_F(FetcherTest, KeepsMessagesWhoseCrcMatchesAndDropsCorruptedOnes) {
  const std::string payload("pay\0load\xff", 9);
  const uint32_t good = messageCrc32("svc.topic", payload);
  std::string changed = payload;
  changed[3] ^= 0x01;
  client_->answer(kFirstPageUrl,
                  pageJson({messageJson({"ok", "svc.topic", payload, "", good}),
                            messageJson({"bad", "svc.topic", changed, "", good}),
                            messageJson({"badtopic", "svc.topiC", payload, "", good})}));
  EXPECT_TRUE(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_));
  ASSERT_EQ(ids(), (std::vector<std::string>{"ok"}));
  EXPECT_EQ(messages_.front().getPayload(), payload);
  EXPECT_EQ(messages_.front().getTopic(), "svc.topic");
  EXPECT_TRUE(log_.contains(
      "INFO WispMessageFetcher: Received message. MessageID: ok MessageTopic: svc.topic "
      "Payload: 9 bytes"));
  EXPECT_TRUE(log_.contains(
      "ERROR WispMessageFetcher: Received corrupted message. MessageID: bad MessageTopic: "
      "svc.topic"));
  EXPECT_TRUE(log_.contains(
      "ERROR WispMessageFetcher: Received corrupted message. MessageID: badtopic MessageTopic: "
      "svc.topiC"));
}

TEST_F(FetcherTest, ReadsDirectedCustomerIdOnlyWhenGiven) {
  client_->answer(kFirstPageUrl, pageJson({messageJson({"a", "t", "p", "null"}),
                                           messageJson({"b", "t", "p", R"("cust-1")"}),
                                           messageJson({"c", "t", "p", ""})}));
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  std::vector<std::string> directed;
  for (const auto& message : messages_) {
    directed.push_back(message.getDirectedCustomerId());
  }
  EXPECT_EQ(directed, (std::vector<std::string>{"", "cust-1", ""}));
}

TEST_F(FetcherTest, TakesAnUndecodablePayloadAsEmptyAndLetsTheCrcDecide) {
  const std::string emptyCrc = std::to_string(messageCrc32("t", ""));
  const std::string otherCrc = std::to_string(messageCrc32("t", "x"));
  client_->answer(
      kFirstPageUrl,
      pageJson({R"({"message":{"id":"a","topic":"t","payload":"!!!!","crc":)" + emptyCrc + "}}",
                R"({"message":{"id":"b","topic":"t","payload":"!!!!","crc":)" + otherCrc + "}}"}));
  fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_);
  ASSERT_EQ(ids(), (std::vector<std::string>{"a"}));
  EXPECT_EQ(messages_.front().getPayload(), "");
}

TEST_F(FetcherTest, DropsMalformedElementsAndDeliversTheRestOfThePage) {
  const std::string crc = std::to_string(messageCrc32("t", ""));
  struct Case {
    std::string element;
    std::string log;
  };
  const Case cases[] = {
      {"5", "Dropped malformed message. Reason: element is not an object"},
      {"{}", "Dropped malformed message. Reason: \"message\" is missing or not an object"},
      {R"({"message":"text"})",
       "Dropped malformed message. Reason: \"message\" is missing or not an object"},
      {R"({"message":{"topic":"t","payload":"","crc":)" + crc + "}}",
       "Dropped malformed message. Reason: missing \"id\""},
      {R"({"message":{"id":7,"topic":"t","payload":"","crc":)" + crc + "}}",
       "Dropped malformed message. Reason: \"id\" is not a string"},
      {R"({"message":{"id":"m","payload":"","crc":)" + crc + "}}",
       "Dropped malformed message. MessageID: m Reason: missing \"topic\""},
      {R"({"message":{"id":"m","topic":["t"],"payload":"","crc":)" + crc + "}}",
       "Dropped malformed message. MessageID: m Reason: \"topic\" is not a string"},
      {R"({"message":{"id":"m","topic":"t","payload":null,"crc":)" + crc + "}}",
       "Dropped malformed message. MessageID: m Reason: missing \"payload\""},
      {R"({"message":{"id":"m","topic":"t","payload":"","crc":)" + crc +
           R"(,"directedCustomerId":1}})",
       "Dropped malformed message. MessageID: m Reason: \"directedCustomerId\" is not a string"},
      {R"({"message":{"id":"m","topic":"t","payload":""}})",
       "Dropped malformed message. MessageID: m Reason: \"crc\" is missing or not an unsigned "
       "32-bit number"},
      {R"({"message":{"id":"m","topic":"t","payload":"","crc":")" + crc + "\"}}",
       "Dropped malformed message. MessageID: m Reason: \"crc\" is missing or not an unsigned "
       "32-bit number"},
      {R"({"message":{"id":"m","topic":"t","payload":"","crc":-1}})",
       "Dropped malformed message. MessageID: m Reason: \"crc\" is missing or not an unsigned "
       "32-bit number"},
      {R"({"message":{"id":"m","topic":"t","payload":"","crc":4294967296}})",
       "Dropped malformed message. MessageID: m Reason: \"crc\" is missing or not an unsigned "
       "32-bit number"},
      {R"({"message":{"id":"m","topic":"t","payload":"","crc":)" + crc + ".5}}",
       "Dropped malformed message. MessageID: m Reason: \"crc\" is missing or not an unsigned "
       "32-bit number"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.element);
    messages_.clear();
    log_.clear();
    client_->answer(kFirstPageUrl, pageJson({messageJson({"before", "t", "1"}), c.element,
                                             messageJson({"after", "t", "2"})}));
    fetcher_->reset();
    EXPECT_TRUE(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_));
    EXPECT_EQ(ids(), (std::vector<std::string>{"before", "after"}));
    EXPECT_TRUE(log_.contains("ERROR WispMessageFetcher: " + c.log));
  }
}

TEST_F(FetcherTest, PassesHttpFailuresOnAndKeepsEarlierMessages) {
  const std::string p2 = "https://messaging.test/p2";
  client_->answer(kFirstPageUrl, pageJson({messageJson({"m1", "t", "x"})}, p2));
  client_->answer(p2, Reply{0, "", "Connection refused"});
  EXPECT_TRUE(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_));
  EXPECT_THROW(fetcher_->fetchNextPage(WispPollReason::NUDGE, messages_), IOError);
  EXPECT_EQ(ids(), (std::vector<std::string>{"m1"}));
}

}  // namespace
}  // namespace nyxtest
