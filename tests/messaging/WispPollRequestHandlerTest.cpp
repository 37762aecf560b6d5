// Whole poll cycles over a scripted server and a recording bus: which
// messages are delivered, in which order, which are purged, and how a cycle
// ends on each kind of failure.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "daemon/Json.h"
#include "messaging/Base64.h"
#include "messaging/WispPollRequestHandler.h"
#include "tests/messaging/MessagingFakes.h"
#include "tests/messaging/MessagingTestData.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

const std::string kPage2 = "https://messaging.test/messages?page=2";
const std::string kPage3 = "https://messaging.test/messages?page=3";

class PollCycleTest : public ::testing::Test {
 protected:
  PollCycleTest() {
    root_.setConfig({{"url.devicemessaging.getmessages", kFirstPageUrl}});
    handler_ = std::make_unique<WispPollRequestHandler>(
        std::make_shared<WispMessageFetcher>(client_, std::make_shared<FakeSigner>()),
        std::make_shared<WispMessageDispatcher>(sender_),
        std::make_shared<WispMessagePurger>(sender_));
  }

  // "service:what" for every bus write: the message id for a delivery, the
  // purged id and code for an outbound entry.
  std::vector<std::string> busTraffic() const {
    std::vector<std::string> result;
    for (const auto& sent : sender_->sent) {
      rapidjson::Document document;
      document.Parse(sent.value.c_str());
      if (sent.service == "com.corvid.outbox") {
        int length = 0;
        const std::string encoded = document["payload"].GetString();
        auto bytes = decodeBase64(encoded, length);
        rapidjson::Document response;
        response.Parse(reinterpret_cast<const char*>(bytes.get()), length);
        result.push_back(std::string("purge:") + response["response"]["id"].GetString() + "/" +
                         std::to_string(response["response"]["status"].GetUint()));
      } else {
        result.push_back(sent.service + ":" + document["id"].GetString());
      }
    }
    return result;
  }

  NyxRoot root_;
  LogCapture log_;
  std::shared_ptr<FakeHttpClient> client_ = std::make_shared<FakeHttpClient>();
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  std::unique_ptr<WispPollRequestHandler> handler_;
};

TEST_F(PollCycleTest, DeliversAndPurgesPageByPageAndRepeatsRetriesWithinTheCycle) {
  struct Case {
    const char* name;
    std::vector<int> busyStatuses;  // answers of svc.busy, in turn
    std::vector<std::string> traffic;
  };
  const Case cases[] = {
      {"all final at once",
       {0},
       {"svc.busy:m1", "purge:m1/1", "svc.ok:m2", "purge:m2/1", "svc.ok:m3", "purge:m3/1"}},
      {"unresponsive on page 1, accepted after page 2",
       {1, 0},
       {"svc.busy:m1", "svc.ok:m2", "purge:m2/1", "svc.busy:m1", "purge:m1/1", "svc.ok:m3",
        "purge:m3/1"}},
      {"unresponsive throughout: delivered after each page, never purged",
       {1, 1, 1},
       {"svc.busy:m1", "svc.ok:m2", "purge:m2/1", "svc.busy:m1", "svc.ok:m3", "purge:m3/1"}},
      {"unresponsive then gone",
       {1, 3},
       {"svc.busy:m1", "svc.ok:m2", "purge:m2/1", "svc.busy:m1", "purge:m1/103", "svc.ok:m3",
        "purge:m3/1"}},
  };
  client_->answer(
      kFirstPageUrl,
      pageJson({messageJson({"m1", "svc.busy", "a"}), messageJson({"m2", "svc.ok", "b"})}, kPage2));
  client_->answer(kPage2, pageJson({messageJson({"m3", "svc.ok", "c"})}));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    sender_->sent.clear();
    client_->requests.clear();
    sender_->statuses["svc.busy"] = {c.busyStatuses.begin(), c.busyStatuses.end()};
    handler_->handlePoll(WispPollReason::NUDGE);
    EXPECT_EQ(busTraffic(), c.traffic);
    // Two pages, then the extra call after a last page with messages makes
    // no request.
    EXPECT_EQ(client_->urls(), (std::vector<std::string>{kFirstPageUrl, kPage2}));
  }
}

TEST_F(PollCycleTest, SendsTheReasonWithEveryPageRequest) {
  client_->answer(kFirstPageUrl, pageJson({}, kPage2));
  client_->answer(kPage2, "{}");
  handler_->handlePoll(WispPollReason::ManualSync);
  ASSERT_EQ(client_->requests.size(), 2u);
  for (const auto& request : client_->requests) {
    EXPECT_EQ(request.getHeaders().at("x-zvo-reason"), "ManualSync");
  }
}

TEST_F(PollCycleTest, EndsAfterOneRequestWhenTheServerHasNothing) {
  client_->answer(kFirstPageUrl, "{}");
  handler_->handlePoll(WispPollReason::NUDGE);
  EXPECT_EQ(client_->requests.size(), 1u);
  EXPECT_TRUE(sender_->sent.empty());
}

TEST_F(PollCycleTest, EndsOnAnIoErrorKeepingWhatWasPurged) {
  struct Case {
    const char* name;
    Reply page2;
    std::string log;
  };
  const Case cases[] = {
      {"transport failure", Reply{0, "", "Couldn't connect to server"},
       "ERROR WispPollRequestHandler: IOError: Couldn't connect to server"},
      {"server error", Reply{503, "busy", ""},
       "ERROR WispPollRequestHandler: IOError: Status Code: 503\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    sender_->sent.clear();
    sender_->statuses["svc.busy"] = {1};
    client_->answer(kFirstPageUrl, pageJson({messageJson({"m1", "svc.ok", "a"}),
                                             messageJson({"m2", "svc.busy", "b"})},
                                            kPage2));
    client_->answer(kPage2, c.page2);
    EXPECT_NO_THROW(handler_->handlePoll(WispPollReason::NUDGE));
    EXPECT_EQ(busTraffic(), (std::vector<std::string>{"svc.ok:m1", "purge:m1/1", "svc.busy:m2"}));
    EXPECT_EQ(log_.count(c.log), 1u) << ::testing::PrintToString(log_.lines());
  }
}

TEST_F(PollCycleTest, LetsEveryOtherFailureEndTheTask) {
  client_->answer(kFirstPageUrl, pageJson({messageJson({"m1", "svc.ok", "a"})}, kPage2));
  // kPage2 is unknown to the server: 404.
  EXPECT_THROW(handler_->handlePoll(WispPollReason::NUDGE), ClientError);
  EXPECT_EQ(busTraffic(), (std::vector<std::string>{"svc.ok:m1", "purge:m1/1"}));

  sender_->sent.clear();
  client_->answer(kFirstPageUrl,
                  pageJson({messageJson({"m1", "cobalt.device.messaging.app",
                                         R"({"registrationId":"r","senderId":"s"})"}),
                            messageJson({"m2", "svc.ok", "a"})}));
  EXPECT_THROW(handler_->handlePoll(WispPollReason::NUDGE), std::runtime_error);
  EXPECT_TRUE(sender_->sent.empty());

  writeFile(root_.file("etc/nyx-host/dynconfig"), "");
  EXPECT_THROW(handler_->handlePoll(WispPollReason::NUDGE), std::runtime_error);
  EXPECT_EQ(log_.count("IOError"), 0u);
}

TEST_F(PollCycleTest, StartsEveryCycleFromTheConfiguredUrl) {
  client_->answer(kFirstPageUrl, pageJson({}, kPage2));
  client_->answer(kPage2, Reply{0, "", "reset by peer"});
  handler_->handlePoll(WispPollReason::NUDGE);
  client_->requests.clear();
  handler_->handlePoll(WispPollReason::NUDGE);
  ASSERT_FALSE(client_->requests.empty());
  EXPECT_EQ(client_->requests[0].getUrl(), kFirstPageUrl);
}

TEST_F(PollCycleTest, DeliversTheRestOfAPageAroundBadMessages) {
  client_->answer(kFirstPageUrl, pageJson({messageJson({"m1", "svc.ok", "a"}),
                                           messageJson({"corrupt", "svc.ok", "b", "", 12345}),
                                           R"({"message":{"id":"noTopic","payload":"","crc":0}})",
                                           messageJson({"m2", "not a bus name!", "c"}),
                                           messageJson({"m3", "svc.ok", "d"})}));
  sender_->statuses["not a bus name!"] = {3};
  handler_->handlePoll(WispPollReason::NUDGE);
  EXPECT_EQ(busTraffic(), (std::vector<std::string>{"svc.ok:m1", "purge:m1/1", "not a bus name!:m2",
                                                    "purge:m2/103", "svc.ok:m3", "purge:m3/1"}));
}

TEST(PollHandlerConstructionTest, NeedsAConfiguredFetchUrl) {
  NyxRoot root;
  EXPECT_THROW(WispPollRequestHandler("customer"), std::runtime_error);
  root.setConfig({{"url.devicemessaging.getmessages", kFirstPageUrl}});
  EXPECT_NO_THROW(WispPollRequestHandler("customer"));
  EXPECT_NO_THROW(WispPollRequestHandler(""));
}

}  // namespace
}  // namespace nyxtest
