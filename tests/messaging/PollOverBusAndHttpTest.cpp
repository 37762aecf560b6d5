// One poll cycle through the real parts: curl fetches two signed pages from a
// local HTTP server; a private dbus-daemon carries the deliveries to services
// published here and the purge entries to a stand-in outbound-message service.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "hbus.h"
#include "messaging/WispPollRequestHandler.h"
#include "tests/messaging/MessagingTestData.h"
#include "tests/support/LocalHttpServer.h"
#include "tests/support/TestSupport.h"

namespace nyxtest {
namespace {

const char kSecret[] = "device-secret-messaging";
const char kCustomer[] = "customer-7";

// Publishes one string property and records every value written into it,
// answering with the scripted statuses, then 0.
class RecordingService {
 public:
  RecordingService(const char* service, const char* property, std::vector<int> statuses = {})
      : statuses_(std::move(statuses)) {
    int status = -1;
    handle_.reset(HbusInitEx(service, &status));
    if (status != 0 || handle_ == nullptr) {
      throw std::runtime_error("HbusInitEx failed: " + std::to_string(status));
    }
    if (HbusRegisterStringProperty(handle_.get(), property, nullptr, &RecordingService::onWrite,
                                   this) != 0 ||
        HbusStartListener(handle_.get()) != 0) {
      throw std::runtime_error(std::string("cannot publish ") + property);
    }
  }

  std::vector<std::string> values() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  // Runs on the bus listener thread; must not throw into the C caller.
  static int onWrite(HbusHandleStruct*, const char*, const char* value, void* userData) {
    auto* self = static_cast<RecordingService*>(userData);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->values_.push_back(value != nullptr ? value : "(null)");
    if (self->next_ < self->statuses_.size()) {
      return self->statuses_[self->next_++];
    }
    return 0;
  }

  std::unique_ptr<HbusHandleStruct, decltype(&HbusClose)> handle_{nullptr, HbusClose};
  mutable std::mutex mutex_;
  std::vector<std::string> values_;
  std::vector<int> statuses_;
  size_t next_ = 0;
};

TEST(PollOverBusAndHttpTest, DeliversTwoPagesAndPurgesFinalOutcomes) {
  PrivateBus bus;
  NyxRoot root;
  LocalHttpServer::Options options;
  options.signingSecret = kSecret;
  LocalHttpServer server({}, options);
  const std::string raw("raw\0bytes", 9);
  const std::string appEnvelope =
      R"({"registrationId":"reg-1","senderId":"sender-1",)"
      R"("appInfo":{"service.name":"com.example.app"},"data":{"text":"hi"}})";
  HttpAnswer page1(
      200, {"Content-Type: application/json"},
      pageJson({messageJson("m1", "com.example.receiver", raw),
                messageJson("m2", "cobalt.device.messaging.app", appEnvelope, R"("cust-1")")},
               server.url("/messages/2?cursor=abc")));
  page1.path = "/messages";
  HttpAnswer page2(200, {"Content-Type: application/json"},
                   pageJson({messageJson("m3", "com.example.nobody", "x"),
                             messageJson("m4", "com.example.receiver", "last", "null")}));
  page2.path = "/messages/2";
  server.setScript({page1, page2});
  root.setConfig({{"url.devicemessaging.getmessages", server.url("/messages")}});
  root.writePlatformFile("device-serial", "SERIAL-0099\n");
  root.writePlatformFile("device-secret", std::string(kSecret) + "\n");
  root.writePlatformFile("customer", std::string(kCustomer) + "\n");
  // The receiver is busy for its first write (m1), so m1 goes out again
  // after page 2, ahead of page 2's own messages.
  RecordingService receiver("com.example.receiver", "wisp_message", {42});
  RecordingService app("com.example.app", "nyx_message");
  RecordingService outbox("com.corvid.outbox", "queueMessage");

  WispPollRequestHandler(kCustomer).handlePoll(WispPollReason::NUDGE);

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].target, "/messages");
  EXPECT_EQ(requests[1].target, "/messages/2?cursor=abc");
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("x-zvo-reason"), "NUDGE");
    EXPECT_EQ(request.signature, "valid");
  }
  EXPECT_EQ(receiver.values(),
            (std::vector<std::string>{deliveryJson("m1", raw), deliveryJson("m1", raw),
                                      deliveryJson("m4", "last")}));
  EXPECT_EQ(
      app.values(),
      std::vector<std::string>{deliveryJson(
          "m2", R"({"collapse_key":"do_not_collapse","from":"sender-1","text":"hi"})", "cust-1")});
  EXPECT_EQ(outbox.values(),
            (std::vector<std::string>{outboxEntry("m2", 1), outboxEntry("m1", 1),
                                      outboxEntry("m3", 103), outboxEntry("m4", 1)}));
}

}  // namespace
}  // namespace nyxtest
