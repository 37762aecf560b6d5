// The property bus on a private dbus-daemon: the caller's status table, the
// "sender" parameter, the listener thread, and opening and closing handles.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hbus.h"
#include "nyx_host_hbus.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::milliseconds;
using nyxtest::waitUntil;

class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { bus_ = std::make_unique<nyxtest::PrivateBus>(); }
  void TearDown() override { bus_.reset(); }

 private:
  std::unique_ptr<nyxtest::PrivateBus> bus_;
};
const auto* const kBusEnvironment = ::testing::AddGlobalTestEnvironment(new BusEnvironment);

struct HandleCloser {
  void operator()(HbusHandleStruct* handle) const { HbusClose(handle); }
};
using Handle = std::unique_ptr<HbusHandleStruct, HandleCloser>;

Handle open(const char* name) {
  int status = -1;
  Handle handle(HbusInitEx(name, &status));
  EXPECT_EQ(status, 0) << (name != nullptr ? name : "(anonymous)");
  return handle;
}

// What the handlers of a test service saw; written on the listener thread.
struct Recorder {
  std::mutex mutex;
  std::vector<std::string> writes;  // "property=value"
  std::vector<std::string> senders;
  std::vector<std::thread::id> threads;
  std::atomic<bool> releaseBlocked{false};

  void add(const std::string& write, const std::string& sender) {
    std::lock_guard<std::mutex> lock(mutex);
    writes.push_back(write);
    senders.push_back(sender);
    threads.push_back(std::this_thread::get_id());
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return writes.size();
  }
};

int onString(HbusHandleStruct*, const char* property, const char* value, void* data) {
  static_cast<Recorder*>(data)->add(std::string(property) + "=" + value, "");
  return 0;
}

int onStringNew(HbusHandleStruct*, const char* property, const char* value, GHashTable* parameters,
                void* data) {
  const char* sender = static_cast<const char*>(g_hash_table_lookup(parameters, "sender"));
  static_cast<Recorder*>(data)->add(std::string(property) + "=" + value,
                                    sender != nullptr ? sender : "(none)");
  return 0;
}

int onInt(HbusHandleStruct*, const char* property, int value, void* data) {
  static_cast<Recorder*>(data)->add(std::string(property) + "=" + std::to_string(value), "");
  return 0;
}

int refuseWith42(HbusHandleStruct*, const char*, const char*, void*) { return 42; }

int blockUntilReleased(HbusHandleStruct*, const char*, const char*, void* data) {
  auto* recorder = static_cast<Recorder*>(data);
  waitUntil([recorder] { return recorder->releaseBlocked.load(); }, milliseconds(5000));
  return 0;
}

int readAnswer(HbusHandleStruct*, const char*, int* value, void*) {
  *value = 42;
  return 0;
}

constexpr char kService[] = "nyx.test.service";

// A service with one property of each kind, listening.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_ = open(kService);
    ASSERT_TRUE(service_);
    HbusRegisterStringProperty(service_.get(), "plain", nullptr, onString, &recorder_);
    HbusRegisterStringPropertyNew(service_.get(), "request", nullptr, onStringNew, &recorder_);
    HbusRegisterIntProperty(service_.get(), "count", nullptr, onInt, &recorder_);
    HbusRegisterIntProperty(service_.get(), "answer", readAnswer, nullptr, nullptr);
    HbusRegisterStringProperty(service_.get(), "refused", nullptr, refuseWith42, nullptr);
    HbusRegisterStringProperty(service_.get(), "slow", nullptr, blockUntilReleased, &recorder_);
    caller_ = open(nullptr);
  }
  void TearDown() override {
    recorder_.releaseBlocked = true;
    caller_.reset();
    service_.reset();
  }

  Recorder recorder_;
  Handle service_;
  Handle caller_;
};

struct StatusCase {
  const char* what;
  const char* service;
  const char* method;  // "SetString", "SetInt", "GetInt"
  const char* property;
  const char* value;
  int expected;
};

TEST_F(ServiceTest, CallerStatusFollowsTheStatusTable) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  const StatusCase cases[] = {
      {"accepted write", kService, "SetString", "plain", "hi", 0},
      {"accepted int write", kService, "SetInt", "count", "5", 0},
      {"read through a read handler", kService, "GetInt", "answer", "", 0},
      {"unknown property", kService, "SetString", "missing", "x", 8},
      {"int write to a string property", kService, "SetInt", "plain", "1", 8},
      {"string write to an int property", kService, "SetString", "count", "1", 8},
      {"service without /hbus", "org.freedesktop.DBus", "SetString", "plain", "x", 8},
      {"handler status", kService, "SetString", "refused", "x", 42},
      {"name without owner", "nyx.test.nobody", "SetString", "plain", "x", 3},
      {"invalid bus name", "not a bus name", "SetString", "plain", "x", 3},
      {"null service", nullptr, "SetString", "plain", "x", 3},
      {"value not UTF-8", kService, "SetString", "plain", "caf\xc3", 1},
      {"property not UTF-8", kService, "SetString", "pl\xff", "x", 1},
  };
  for (const auto& row : cases) {
    int status = -1;
    const std::string method = row.method;
    if (method == "SetString") {
      status = HbusSetStringProperty(caller_.get(), row.service, row.property, row.value);
    } else if (method == "SetInt") {
      status = HbusSetIntProperty(caller_.get(), row.service, row.property, std::stoi(row.value));
    } else {
      int value = 0;
      status = HbusGetIntProperty(caller_.get(), row.service, row.property, &value);
      EXPECT_EQ(value, 42) << row.what;
    }
    EXPECT_EQ(status, row.expected) << row.what;
  }
  EXPECT_EQ(HbusSetStringProperty(nullptr, kService, "plain", "x"), 1) << "null handle";
}

TEST_F(ServiceTest, CallThatOutlivesTheTimeOutFailsWithStatus1) {
  nyxtest::ScopedEnv timeout("HBUS_TIMEOUT_MS", "200");
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(HbusSetStringProperty(caller_.get(), kService, "slow", "x"), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(3000));
  recorder_.releaseBlocked = true;
  // The listener is free again once the handler returns.
  EXPECT_EQ(HbusSetStringProperty(caller_.get(), kService, "plain", "after"), 0);
}

TEST_F(ServiceTest, WrittenValuesReadBack) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  ASSERT_EQ(HbusSetStringProperty(caller_.get(), kService, "plain", "grüße"), 0);
  ASSERT_EQ(HbusSetIntProperty(caller_.get(), kService, "count", -7), 0);
  char* text = nullptr;
  ASSERT_EQ(HbusGetStringProperty(caller_.get(), kService, "plain", &text), 0);
  EXPECT_STREQ(text, "grüße");
  g_free(text);
  int value = 0;
  ASSERT_EQ(HbusGetIntProperty(caller_.get(), kService, "count", &value), 0);
  EXPECT_EQ(value, -7);
  std::lock_guard<std::mutex> lock(recorder_.mutex);
  EXPECT_EQ(recorder_.writes, (std::vector<std::string>{"plain=grüße", "count=-7"}));
}

TEST_F(ServiceTest, SenderParameterIsTheWritersUniqueNameAndReachesItsObject) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  Handle named = open("nyx.test.writer");
  Recorder answers;
  HbusRegisterStringProperty(caller_.get(), "reply", nullptr, onString, &answers);
  ASSERT_EQ(HbusStartListener(caller_.get()), 0);

  ASSERT_EQ(HbusSetStringProperty(caller_.get(), kService, "request", "one"), 0);
  ASSERT_EQ(HbusSetStringProperty(named.get(), kService, "request", "two"), 0);
  std::string anonymousSender;
  {
    std::lock_guard<std::mutex> lock(recorder_.mutex);
    ASSERT_EQ(recorder_.senders.size(), 2u);
    EXPECT_EQ(recorder_.senders[0], nyx_host_hbus_unique_name(caller_.get()));
    EXPECT_EQ(recorder_.senders[1], nyx_host_hbus_unique_name(named.get()));
    EXPECT_EQ(recorder_.senders[0].rfind(":", 0), 0u);
    anonymousSender = recorder_.senders[0];
  }
  EXPECT_EQ(HbusSetStringProperty(service_.get(), anonymousSender.c_str(), "reply", "done"), 0);
  std::lock_guard<std::mutex> lock(answers.mutex);
  EXPECT_EQ(answers.writes, std::vector<std::string>{"reply=done"});
}

TEST_F(ServiceTest, HandlersRunOnTheListenerThreadOnly) {
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([this, i] {
      Handle own = open(nullptr);
      EXPECT_EQ(HbusSetIntProperty(own.get(), kService, "count", i), 0);
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  EXPECT_EQ(HbusSetStringProperty(caller_.get(), kService, "plain", "main"), 0);
  std::lock_guard<std::mutex> lock(recorder_.mutex);
  ASSERT_EQ(recorder_.threads.size(), 5u);
  for (const auto& id : recorder_.threads) {
    EXPECT_EQ(id, recorder_.threads[0]);
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST_F(ServiceTest, WriteBeforeTheListenerStartsWaitsForIt) {
  std::atomic<int> status{-1};
  std::thread writer([this, &status] {
    status = HbusSetStringProperty(caller_.get(), kService, "plain", "early");
  });
  // Nothing may run a handler before the listener exists.
  EXPECT_FALSE(waitUntil([this] { return recorder_.count() > 0; }, milliseconds(300)));
  EXPECT_EQ(status.load(), -1);
  ASSERT_EQ(HbusStartListener(service_.get()), 0);
  writer.join();
  EXPECT_EQ(status.load(), 0);
  std::lock_guard<std::mutex> lock(recorder_.mutex);
  EXPECT_EQ(recorder_.writes, std::vector<std::string>{"plain=early"});
}

struct InitCase {
  const char* what;
  const char* name;
  const char* busAddress;  // nullptr: the private bus
};

TEST(HbusInitTest, FailedInitGivesNonZeroStatusAndAClosableHandle) {
  Handle holder = open("nyx.test.taken");
  const InitCase cases[] = {
      {"name already owned", "nyx.test.taken", nullptr},
      {"invalid name", "nyx..bad", nullptr},
      {"unique name", ":1.99", nullptr},
      {"unreachable bus", "nyx.test.other", "unix:path=/nonexistent/nyx-bus"},
  };
  for (const auto& row : cases) {
    std::unique_ptr<nyxtest::ScopedEnv> address;
    if (row.busAddress != nullptr) {
      address = std::make_unique<nyxtest::ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", row.busAddress);
    }
    int status = 0;
    HbusHandleStruct* handle = HbusInitEx(row.name, &status);
    EXPECT_NE(status, 0) << row.what;
    HbusClose(handle);
  }
  HbusClose(nullptr);
}

TEST(HbusInitTest, ClosingReleasesTheNameAndStopsTheListener) {
  for (int round = 0; round < 3; ++round) {
    Handle handle = open("nyx.test.reused");
    ASSERT_TRUE(handle);
    ASSERT_EQ(HbusStartListener(handle.get()), 0);
  }
  Handle caller = open(nullptr);
  EXPECT_EQ(HbusSetStringProperty(caller.get(), "nyx.test.reused", "x", "y"), 3);
}

}  // namespace
