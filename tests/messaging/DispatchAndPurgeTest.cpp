// Dispatch and purge against a recording bus sender: the exact values
// written, the properties and services they go to, the mapping of bus
// statuses to outcomes and the log lines. Expected payloads were encoded
// independently of the code under test.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "messaging/WispDispatchStatus.h"
#include "messaging/WispMessageDispatcher.h"
#include "messaging/WispMessagePurger.h"
#include "messaging/WispPurgeMessageRequest.h"
#include "tests/messaging/MessagingFakes.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

WispMessage makeMessage(const std::string& id, const std::string& topic, const std::string& payload,
                        const std::string& directed = "") {
  WispMessage message;
  message.setId(id);
  message.setTopic(topic);
  message.setPayload(payload);
  message.setDirectedCustomerId(directed);
  return message;
}

const std::string kAppTopic = "cobalt.device.messaging.app";
const std::string kAppEnvelope =
    R"({"registrationId":"r","senderId":"s","appInfo":{"service.name":"com.app"}})";

class DispatcherTest : public ::testing::Test {
 protected:
  LogCapture log_;
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  WispMessageDispatcher dispatcher_{sender_};
};

TEST_F(DispatcherTest, WritesTheDeliveryEnvelopeToTheReceivingService) {
  struct Case {
    WispMessage message;
    std::string service;
    std::string property;
    std::string value;
  };
  const Case cases[] = {
      {makeMessage("m1", "com.example.svc", "hello"), "com.example.svc", "wisp_message",
       R"({"id":"m1","payload":"aGVsbG8="})"},
      {makeMessage("m1", "com.example.svc", "hello", "cust"), "com.example.svc", "wisp_message",
       R"({"id":"m1","directedId":"cust","payload":"aGVsbG8="})"},
      {makeMessage("m\"2", "svc", ""), "svc", "wisp_message", R"({"id":"m\"2","payload":""})"},
      {makeMessage("m1", kAppTopic, kAppEnvelope), "com.app", "nyx_message",
       R"({"id":"m1","payload":"eyJjb2xsYXBzZV9rZXkiOiJkb19ub3RfY29sbGFwc2UiLCJmcm9tIjoicyJ9"})"},
      {makeMessage("m1", kAppTopic,
                   R"({"registrationId":"r","senderId":"s","consolidationKey":"k",)"
                   R"("appInfo":{"service.name":"com.app"},"data":{"a":"1"}})",
                   "cust"),
       "com.app", "nyx_message",
       R"({"id":"m1","directedId":"cust","payload":"eyJhIjoiMSIsImNvbGxhcHNlX2tleSI6ImsiLCJmcm9tIjoicyJ9"})"},
  };
  for (const Case& c : cases) {
    sender_->sent.clear();
    EXPECT_EQ(dispatcher_.dispatch(c.message), WispDispatchStatus::Dispatched);
    ASSERT_EQ(sender_->sent.size(), 1u);
    EXPECT_EQ(sender_->sent[0].service, c.service);
    EXPECT_EQ(sender_->sent[0].property, c.property);
    EXPECT_EQ(sender_->sent[0].value, c.value);
  }
}

TEST_F(DispatcherTest, MapsBusStatusesToOutcomesAndLogsEach) {
  struct Case {
    int busStatus;
    WispDispatchStatus outcome;
    std::string rawLog;
    std::string nyxLog;
  };
  const Case cases[] = {
      {0, WispDispatchStatus::Dispatched,
       "INFO WispMessageDispatcher: Dispatched WISP message. ID: m1 Topic: svc",
       "INFO WispMessageDispatcher: Dispatched NYX message. ID: m1 Service: com.app"},
      {3, WispDispatchStatus::Unhandled,
       "ERROR WispMessageDispatcher: WISP Topic unhandled or missing property. Topic: svc "
       "Property: wisp_message",
       "ERROR WispMessageDispatcher: Service unroutable or missing property. Service: com.app "
       "Property: nyx_message"},
      {8, WispDispatchStatus::Unhandled,
       "ERROR WispMessageDispatcher: WISP Topic unhandled or missing property. Topic: svc "
       "Property: wisp_message",
       "ERROR WispMessageDispatcher: Service unroutable or missing property. Service: com.app "
       "Property: nyx_message"},
      {1, WispDispatchStatus::Unresponsive,
       "WARN WispMessageDispatcher: Service unresponsive. Topic: svc Status: 1",
       "WARN WispMessageDispatcher: Service unresponsive. Service: com.app Status: 1"},
      {-5, WispDispatchStatus::Unresponsive,
       "WARN WispMessageDispatcher: Service unresponsive. Topic: svc Status: -5",
       "WARN WispMessageDispatcher: Service unresponsive. Service: com.app Status: -5"},
      {4, WispDispatchStatus::Unresponsive,
       "WARN WispMessageDispatcher: Service unresponsive. Topic: svc Status: 4",
       "WARN WispMessageDispatcher: Service unresponsive. Service: com.app Status: 4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.busStatus);
    log_.clear();
    sender_->statuses["svc"] = {c.busStatus};
    sender_->statuses["com.app"] = {c.busStatus};
    EXPECT_EQ(dispatcher_.dispatch(makeMessage("m1", "svc", "abc")), c.outcome);
    EXPECT_EQ(dispatcher_.dispatch(makeMessage("m1", kAppTopic, kAppEnvelope)), c.outcome);
    EXPECT_EQ(log_.lines(),
              (std::vector<std::string>{
                  "INFO WispMessageDispatcher: Dispatching WISP message. ID: m1 Topic: svc "
                  "Payload: 3 bytes",
                  c.rawLog,
                  "INFO WispMessageDispatcher: Dispatching NYX message. ID: m1 Service: com.app "
                  "Payload: " +
                      std::to_string(kAppEnvelope.size()) + " bytes",
                  c.nyxLog}));
  }
}

TEST_F(DispatcherTest, FailsOnAnApplicationMessageWithoutServiceName) {
  const std::string envelopes[] = {
      R"({"registrationId":"r","senderId":"s"})",
      R"({"registrationId":"r","senderId":"s","appInfo":{"other":"x"}})",
  };
  for (const std::string& envelope : envelopes) {
    try {
      dispatcher_.dispatch(makeMessage("m1", kAppTopic, envelope));
      ADD_FAILURE() << "no exception for " << envelope;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(),
                   "Attempted retrieval of non-existent app info entry: service.name");
    }
  }
  EXPECT_THROW(dispatcher_.dispatch(makeMessage("m1", kAppTopic, "not json")), std::runtime_error);
  EXPECT_TRUE(sender_->sent.empty());
}

class PurgerTest : public ::testing::Test {
 protected:
  LogCapture log_;
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  WispMessagePurger purger_{sender_};
};

TEST_F(PurgerTest, QueuesTheResponseWithTheOutboundService) {
  struct Case {
    WispMessage message;
    WispDispatchStatus status;
    std::string entry;
  };
  const Case cases[] = {
      {makeMessage("m1", "svc", "x"), WispDispatchStatus::Unhandled,
       R"({"topic":"cobalt.messaging.response","payload":"eyJyZXNwb25zZSI6eyJpZCI6Im0xIiwic3RhdHVzIjoxMDMsInJldHJ5IjpmYWxzZX19","gunzip":false,"options":{"flushTime":1}})"},
      {makeMessage(std::string("ab\0cd", 5), "svc", "x"), WispDispatchStatus::Dispatched,
       R"({"topic":"cobalt.messaging.response","payload":"eyJyZXNwb25zZSI6eyJpZCI6ImFiIiwic3RhdHVzIjoxLCJyZXRyeSI6ZmFsc2V9fQ==","gunzip":false,"options":{"flushTime":1}})"},
      {makeMessage("m1", "svc", "x"), WispDispatchStatus::Unresponsive,
       R"({"topic":"cobalt.messaging.response","payload":"eyJyZXNwb25zZSI6eyJpZCI6Im0xIiwic3RhdHVzIjoyMDAsInJldHJ5Ijp0cnVlfX0=","gunzip":false,"options":{"flushTime":1}})"},
  };
  for (const Case& c : cases) {
    sender_->sent.clear();
    EXPECT_TRUE(purger_.purge(c.message, c.status));
    ASSERT_EQ(sender_->sent.size(), 1u);
    EXPECT_EQ(sender_->sent[0].service, "com.corvid.outbox");
    EXPECT_EQ(sender_->sent[0].property, "queueMessage");
    EXPECT_EQ(sender_->sent[0].value, c.entry);
  }
  EXPECT_EQ(
      WispPurgeMessageRequest(makeMessage("m1", "svc", "x")).toJson(WispDispatchStatus::Unhandled),
      R"({"response":{"id":"m1","status":103,"retry":false}})");
}

TEST_F(PurgerTest, ReportsWhetherTheOutboundServiceAcceptedTheEntry) {
  const std::pair<int, std::vector<std::string>> cases[] = {
      {0,
       {"INFO WispMessagePurger: Sending purge message request. ID: m1",
        "INFO WispMessagePurger: Sent purge message request. ID: m1"}},
      {3,
       {"INFO WispMessagePurger: Sending purge message request. ID: m1",
        "ERROR WispMessagePurger: Failed to send purge message request. ID: m1 Status: 3"}},
      {1,
       {"INFO WispMessagePurger: Sending purge message request. ID: m1",
        "ERROR WispMessagePurger: Failed to send purge message request. ID: m1 Status: 1"}},
  };
  for (const auto& [busStatus, lines] : cases) {
    log_.clear();
    sender_->statuses["com.corvid.outbox"] = {busStatus};
    EXPECT_EQ(purger_.purge(makeMessage("m1", "svc", "x"), WispDispatchStatus::Dispatched),
              busStatus == 0);
    EXPECT_EQ(log_.lines(), lines);
  }
}

}  // namespace
}  // namespace nyxtest
