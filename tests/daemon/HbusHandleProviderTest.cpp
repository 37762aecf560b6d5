// The process-wide bus handle table on a private bus; the table is never
// emptied, so this binary is its own. Also the registration request
// callbacks, which look at nothing but their parameters.
#include "daemon/common/HbusHandleProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "daemon/BusEvents.h"
#include "daemon/TaskQueue.h"
#include "daemon/common/COwners.h"
#include "daemon/common/IPCMessageSender.h"
#include "hbus.h"
#include "tests/support/TestSupport.h"

namespace {

const auto* const kBus = testing::AddGlobalTestEnvironment(new nyxtest::PrivateBusEnvironment);

// A failed open is cached as a null handle. (A good handle is cached too:
// nyxd opens its own service at start-up and every sender looks it up again,
// which DaemonEndToEndTest drives.)
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

// A request names its writer in "sender"; without one there is nobody to
// register or answer, and nothing is queued.
TEST(BusEventsTest, RegistrationRequestWithoutASenderIsLoggedAndDropped) {
  taskQueue.clear();
  const std::pair<decltype(&handleRegisterRequest), std::string> requests[] = {
      {handleRegisterRequest, "WARN Main: Ignoring NYX registration request without a sender."},
      {handleUnregisterRequest,
       "WARN Main: Ignoring NYX unregistration request without a sender."}};
  // The sender parameter (nullptr: none; no table at all), and whether a task is queued.
  const std::tuple<bool, const char*, bool> cases[] = {
      {false, nullptr, false}, {true, nullptr, false}, {true, "", false}, {true, ":1.42", true}};
  for (const auto& [callback, dropped] : requests) {
    for (const auto& [hasTable, sender, queued] : cases) {
      SCOPED_TRACE(dropped + " " + (sender ? sender : "(none)"));
      nyxtest::LogCapture log;
      HashTableOwner parameters(g_hash_table_new(g_str_hash, g_str_equal));
      if (sender != nullptr) {
        g_hash_table_insert(parameters.get(), const_cast<char*>("sender"),
                            const_cast<char*>(sender));
      }
      EXPECT_EQ(
          callback(nullptr, "nyx_register", "s1", hasTable ? parameters.get() : nullptr, nullptr),
          0);
      std::unique_ptr<Task> task = taskQueue.tryPop();
      EXPECT_EQ(task != nullptr, queued);
      EXPECT_EQ(log.count(dropped), queued ? 0u : 1u);
    }
  }
}

}  // namespace
