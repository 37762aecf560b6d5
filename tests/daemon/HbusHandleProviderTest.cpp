// The process-wide bus handle table on a private bus; the table is never
// emptied, so this binary is its own.
#include "daemon/HbusHandleProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "daemon/IPCMessageSender.h"
#include "hbus.h"
#include "tests/support/TestSupport.h"

namespace {

struct BusEnvironment : testing::Environment {
  void SetUp() override { bus = std::make_unique<nyxtest::PrivateBus>(); }
  void TearDown() override { bus.reset(); }
  std::unique_ptr<nyxtest::PrivateBus> bus;
};
testing::Environment* const busEnvironment = testing::AddGlobalTestEnvironment(new BusEnvironment);

TEST(HbusHandleProviderTest, OpensEachServiceOnceAndReturnsTheSameHandle) {
  HbusHandleStruct* first = HbusHandleProvider::getHandle(kCobaltDeviceMessaging);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(HbusHandleProvider::getHandle(kCobaltDeviceMessaging), first);
  // That one handle owns the name: another HbusInitEx is refused.
  int status = 0;
  HbusClose(HbusInitEx(kCobaltDeviceMessaging, &status));
  EXPECT_NE(status, 0);
}

TEST(HbusHandleProviderTest, FailedOpenThrowsOnceThenReturnsTheCachedNullHandle) {
  EXPECT_THAT([] { HbusHandleProvider::getHandle("not..a.bus.name"); },
              testing::ThrowsMessage<std::runtime_error>("Hbus Initialization failure: 3"));
  EXPECT_EQ(HbusHandleProvider::getHandle("not..a.bus.name"), nullptr);
}

TEST(IPCMessageSenderTest, SendToMissingServiceReturnsNoSuchServiceWithoutLogging) {
  nyxtest::LogCapture log;
  EXPECT_EQ(IPCMessageSender().send("com.example.absent", "wisp_message", "{}"), 3);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
