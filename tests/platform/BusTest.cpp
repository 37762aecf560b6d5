// The property bus on a private dbus-daemon, through the platform's functions
// and through the hbus tool.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/common/COwners.h"
#include "hbus.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

const auto* const kBus = ::testing::AddGlobalTestEnvironment(new nyxtest::PrivateBusEnvironment);

using Handle = COwner<HbusHandleStruct, HbusClose>;

Handle open(const char* name) {
  int status = -1;
  Handle handle(HbusInitEx(name, &status));
  EXPECT_EQ(status, 0);
  return handle;
}

// The writes the handlers saw ("property=value[ from SENDER]") and their threads.
struct Recorder {
  std::mutex mutex;
  std::vector<std::string> writes;
  std::vector<std::thread::id> threads;

  static int add(void* recorder, const std::string& write) {
    auto* self = static_cast<Recorder*>(recorder);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->writes.push_back(write);
    self->threads.push_back(std::this_thread::get_id());
    return 0;
  }
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mutex);
    return writes;
  }
};

int onString(HbusHandleStruct*, const char* property, const char* value, void* data) {
  return Recorder::add(data, std::string(property) + "=" + value);
}

int onStringNew(HbusHandleStruct*, const char* property, const char* value, GHashTable* parameters,
                void* data) {
  const char* sender = static_cast<const char*>(g_hash_table_lookup(parameters, "sender"));
  return Recorder::add(data, std::string(property) + "=" + value + " from " + sender);
}

int refuseWith42(HbusHandleStruct*, const char*, const char*, void*) { return 42; }

int answerSlowly(HbusHandleStruct*, const char*, const char*, void*) {
  std::this_thread::sleep_for(milliseconds(600));
  return 0;
}

constexpr char kService[] = "nyx.test.service";

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_ = open(kService);
    ASSERT_TRUE(service_);
    HbusRegisterStringProperty(service_.get(), "plain", nullptr, onString, &recorder_);
    HbusRegisterStringPropertyNew(service_.get(), "request", nullptr, onStringNew, &recorder_);
    HbusRegisterStringProperty(service_.get(), "refused", nullptr, refuseWith42, nullptr);
    HbusRegisterStringProperty(service_.get(), "slow", nullptr, answerSlowly, nullptr);
    caller_ = open(nullptr);
  }

  Recorder recorder_;
  Handle service_;
  Handle caller_;
};

// Writes that succeed, reads, an unknown property, a write of the wrong type
// and a name without owner are rows of the hbus tool's table below, through
// these same functions.
TEST_F(ServiceTest, CallerStatusFollowsTheStatusTable) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  const struct {
    const char *what, *service, *property, *value;
    int expected;
  } cases[] = {
      {"service without /hbus", "org.freedesktop.DBus", "plain", "x", 8},
      {"handler status", kService, "refused", "x", 42},
      {"invalid bus name", "not a bus name", "plain", "x", 3},
      {"value not UTF-8", kService, "plain", "caf\xc3", 1},
      {"no reply within the time-out", kService, "slow", "x", 1},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    nyxtest::ScopedEnv timeout("HBUS_TIMEOUT_MS",
                               std::string(row.property) == "slow" ? "300" : "10000");
    EXPECT_EQ(HbusSetStringProperty(caller_.get(), row.service, row.property, row.value),
              row.expected);
  }
  EXPECT_EQ(recorder_.seen(), std::vector<std::string>{});
}

TEST_F(ServiceTest, WritesWaitForTheListenerAndRunOnIt) {
  std::thread early(
      [&] { EXPECT_EQ(HbusSetStringProperty(caller_.get(), kService, "plain", "early"), 0); });
  EXPECT_FALSE(nyxtest::waitUntil([this] { return !recorder_.seen().empty(); }, milliseconds(300)));
  EXPECT_EQ(HbusStartListener(service_.get()), 0);
  early.join();
  ASSERT_EQ(HbusSetStringProperty(caller_.get(), kService, "plain", "late"), 0);
  EXPECT_EQ(recorder_.seen(), (std::vector<std::string>{"plain=early", "plain=late"}));
  {
    std::lock_guard<std::mutex> lock(recorder_.mutex);
    EXPECT_EQ(recorder_.threads.at(0), recorder_.threads.at(1));
    EXPECT_NE(recorder_.threads.at(0), std::this_thread::get_id());
  }
  // An answer written to the sender reaches the caller's own object: the
  // registration answers of DaemonEndToEndTest.
}

// A caller is named by its well-known name while it owns exactly one, and
// otherwise by its unique name, as the bus stood when the write arrived.
TEST_F(ServiceTest, SenderIsTheCallersOnlyWellKnownNameElseItsUniqueName) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  GDBusConnection* caller = g_dbus_connection_new_for_address_sync(
      g_getenv("DBUS_SESSION_BUS_ADDRESS"),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  ASSERT_NE(caller, nullptr);
  const std::string unique = g_dbus_connection_get_unique_name(caller);
  auto callBus = [caller](const char* method, const char* name) {
    GVariant* reply = g_dbus_connection_call_sync(
        caller, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        g_strcmp0(method, "RequestName") == 0 ? g_variant_new("(su)", name, 4u)
                                              : g_variant_new("(s)", name),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(reply, nullptr) << method << " " << name;
    g_variant_unref(reply);
  };
  const struct {
    const char *what, *request, *release;  // the caller's names change first
    std::string sender;
  } cases[] = {
      {"no name", nullptr, nullptr, unique},
      {"one name", "nyx.test.app", nullptr, "nyx.test.app"},
      {"two names", "nyx.test.other", nullptr, unique},
      {"one of them released", nullptr, "nyx.test.app", "nyx.test.other"},
      {"the last released", nullptr, "nyx.test.other", unique},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    if (row.request != nullptr) {
      callBus("RequestName", row.request);
    }
    if (row.release != nullptr) {
      callBus("ReleaseName", row.release);
    }
    GVariant* reply =
        g_dbus_connection_call_sync(caller, kService, "/hbus", "hbus.Properties", "SetString",
                                    g_variant_new("(ss)", "request", row.what), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(reply, nullptr);
    g_variant_unref(reply);
    EXPECT_EQ(recorder_.seen().back(), std::string("request=") + row.what + " from " + row.sender);
  }
  g_dbus_connection_close_sync(caller, nullptr, nullptr);
  g_object_unref(caller);
}

ChildProcess::Options hbus(const std::vector<std::string>& args) {
  ChildProcess::Options options;
  options.argv = {nyxtest::binaryDir() + "/tools/hbus/hbus"};
  options.argv.insert(options.argv.end(), args.begin(), args.end());
  options.projectBinary = true;
  return options;
}

TEST(HbusToolTest, ServesSetsAndGetsWithTheBusStatusAsExitStatus) {
  ChildProcess server(hbus({"serve", "nyx.tool.demo", "--string", "greeting", "--int", "level=3"}));
  ASSERT_TRUE(server.waitForLine("serving nyx.tool.demo as :", milliseconds(10000)))
      << server.output();
  const struct {
    std::vector<std::string> args;
    int status;          // -1: any failure
    const char* output;  // nullptr: not checked
    const char* says = "";
  } cases[] = {
      {{"get-int", "nyx.tool.demo", "level"}, 0, "3\n"},
      {{"set", "nyx.tool.demo", "greeting", "grüße world"}, 0, ""},
      {{"get", "nyx.tool.demo", "greeting"}, 0, "grüße world\n"},
      {{"set-int", "nyx.tool.demo", "level", "-9"}, 0, ""},
      {{"get-int", "nyx.tool.demo", "level"}, 0, "-9\n"},
      {{"set", "nyx.tool.demo", "unknown", "x"}, 8, nullptr},
      {{"set", "nyx.tool.demo", "level", "x"}, 8, nullptr},  // a string write to an int property
      {{"serve", "nyx.tool.demo"},
       -1,
       nullptr,
       "hbus: cannot own the name nyx.tool.demo on the session bus at unix:"},
      {{"set", "no.such.service", "x", "y"}, 3, nullptr},
      {{}, 2, nullptr},
      {{"frob", "a", "b"}, 2, nullptr},
      {{"set-int", "nyx.tool.demo", "level", "ten"}, 2, nullptr},
      {{"serve", "nyx.tool.x", "--int", "n"}, 2, nullptr},
      {{"--help"}, 0, nullptr},
  };
  for (const auto& row : cases) {
    ChildProcess child(hbus(row.args));
    const int status = child.waitForExit(milliseconds(15000)).value_or(-1000);
    child.waitForOutputClosed(milliseconds(1000));
    const std::string output = child.output();
    SCOPED_TRACE(testing::PrintToString(row.args) + "\n" + output);
    if (row.status < 0) {
      EXPECT_GT(status, 0);
    } else {
      EXPECT_EQ(status, row.status);
    }
    if (row.output != nullptr) {
      EXPECT_EQ(output, row.output);
    }
    EXPECT_THAT(output, testing::HasSubstr(row.says));
  }
  EXPECT_TRUE(server.waitForLine("write greeting \"grüße world\" from :", milliseconds(5000)));
  EXPECT_TRUE(server.waitForLine("write level -9 from :", milliseconds(5000))) << server.output();
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(milliseconds(5000)), 0);
}

}  // namespace
