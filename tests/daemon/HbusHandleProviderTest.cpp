// The daemon's bus handle table and message sender on a private bus. The
// table is process-wide and never emptied, so this binary is its own.
#include "daemon/HbusHandleProvider.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "daemon/IPCMessageSender.h"
#include "hbus.h"
#include "tests/support/TestSupport.h"

namespace {

// One bus for the whole binary: the table keeps its handles until exit.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { bus_ = std::make_unique<nyxtest::PrivateBus>(); }
  void TearDown() override { bus_.reset(); }

 private:
  std::unique_ptr<nyxtest::PrivateBus> bus_;
};
const auto* const kBusEnvironment = ::testing::AddGlobalTestEnvironment(new BusEnvironment);

TEST(HbusHandleProviderTest, OpensEachServiceOnceAndReturnsTheSameHandle) {
  HbusHandleStruct* first = HbusHandleProvider::getHandle(kCobaltDeviceMessaging);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(HbusHandleProvider::getHandle(kCobaltDeviceMessaging), first);
  // The name is owned by that one handle: a second HbusInitEx is refused.
  int status = 0;
  HbusHandleStruct* second = HbusInitEx(kCobaltDeviceMessaging, &status);
  EXPECT_NE(status, 0);
  HbusClose(second);
}

TEST(HbusHandleProviderTest, FailedOpenThrowsOnceThenReturnsTheCachedHandle) {
  const std::string invalid = "not..a.bus.name";
  try {
    HbusHandleProvider::getHandle(invalid);
    FAIL() << "expected a runtime error";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Hbus Initialization failure: 3");
  }
  HbusHandleStruct* cached = nullptr;
  EXPECT_NO_THROW(cached = HbusHandleProvider::getHandle(invalid));
  EXPECT_EQ(cached, nullptr);
}

TEST(IPCMessageSenderTest, SendToMissingServiceReturnsNoSuchServiceWithoutLogging) {
  nyxtest::LogCapture log;
  IPCMessageSender sender;
  EXPECT_EQ(sender.send("com.example.absent", "wisp_message", "{}"), 3);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
