// The real nyxd, end to end: a private bus, the mock messaging server, the
// device simulators and bus writes as applications make them. Tests wait on
// what the daemon prints or what the fakes record, each with a deadline; none
// sleeps a fixed time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/join.hpp>
#include <string>
#include <variant>
#include <vector>

#include "tests/e2e/DaemonHarness.h"

namespace nyxtest {
namespace {

const char kFrameworkDown[] = "I Main: Ignoring NUDGE event, because framework is not yet up";

// Matches output that holds each text, in this order (a POSIX "." matches a
// newline too).
testing::Matcher<std::string> inOrder(const std::vector<std::string>& texts) {
  return testing::ContainsRegex(boost::algorithm::join(texts, ".*"));
}

// The values of one header over the fetch requests the mock server received.
std::vector<std::string> fetchHeaders(DaemonHarness& harness, const char* name) {
  std::vector<std::string> values;
  rapidjson::Document answer = harness.mock({"requests"});
  for (const auto& request : answer["requests"].GetArray()) {
    for (const auto& header : request["headers"].GetArray()) {
      if (request["method"] == "GET" && strcasecmp(header[0].GetString(), name) == 0) {
        values.push_back(header[1].GetString());
      }
    }
  }
  return values;
}

class DaemonEndToEndTest : public ::testing::Test {
 protected:
  DaemonHarness harness_;
};

// One nyxd at a time. When the bus goes away, nyxd can hear nothing again:
// it ends as a failure, saying why, so that its supervisor starts it again on
// the new bus.
TEST_F(DaemonEndToEndTest, StartsUpInOrderOnceAndEndsWithAClearLineWhenTheBusGoes) {
  ChildProcess& daemon = harness_.startDaemon();
  EXPECT_THAT(daemon.output(), inOrder({"I Main: Registering event callbacks.",
                                        "I Main: Registering property callbacks.",
                                        "I Main: Starting the event listener thread.", kWaiting}));
  EXPECT_EQ(readFile(harness_.root().file("var/run/nyx.pid")).find(std::to_string(daemon.pid())),
            0u);

  auto second = harness_.nyxd();
  EXPECT_EQ(second->waitForExit(kDeadline), 255);
  EXPECT_TRUE(second->waitForLine("W Main: NYX Daemon is already running.", kDeadline));
  EXPECT_TRUE(daemon.running());

  harness_.bus().stop();
  EXPECT_EQ(daemon.waitForExit(kDeadline), 1) << daemon.output();
  EXPECT_TRUE(daemon.waitForLine(
      "E Hbus: Lost the connection to the bus (service cobalt.device.messaging)", kDeadline))
      << daemon.output();
}

// SIGTERM during a task: the task finishes, the task queued behind it never
// runs, and neither does the one a bus callback still running at shutdown
// (here one waiting for the shell, which has stopped answering, in the
// framework gate) queues; nyxd exits 0 and removes its pid file. Exit once
// tore the handle table and the task queue down under such a callback and
// hung.
TEST_F(DaemonEndToEndTest, StopsAfterTheRunningTaskEvenWhileABusCallbackIsStillRunning) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "3", "--only", "fetch"});
  harness_.write("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline)) << daemon.output();
  harness_.write("wanRing", 1);  // queued behind the running task
  harness_.shell().signal(SIGSTOP);
  ChildProcess writer(
      {{binaryDir() + "/tools/hbus/hbus", "set-int", "cobalt.device.messaging", "wanRing", "1"},
       true});
  ASSERT_TRUE(daemon.waitForLine("Received NUDGE event: wanRing.", kDeadline, 3));
  daemon.signal(SIGTERM);
  ASSERT_TRUE(daemon.waitForLine("Received termination signal.", kDeadline)) << daemon.output();
  harness_.shell().signal(SIGCONT);
  ASSERT_EQ(daemon.waitForExit(kDeadline), 0) << daemon.output();
  EXPECT_EQ(daemon.count("I Main: Processing task."), 1u);
  EXPECT_THAT(daemon.output(), inOrder({"I Main: Processing task.", kWaiting,
                                        "I Main: Received termination signal."}));
  EXPECT_NE(access(harness_.root().file("var/run/nyx.pid").c_str(), F_OK), 0);
}

// A stop while the worker waits between attempts (here up to four minutes,
// as the server asked) ends the wait within a second: the poll ends with its
// failure, as after its last attempt, and nyxd exits well within the unit's
// stop time.
TEST_F(DaemonEndToEndTest, StopsWithinSecondsWhileWaitingToRetry) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "status", "--status", "503", "--retry-after", "120", "--only", "fetch",
                 "--count", "4"});
  harness_.write("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("I HttpClient: Waiting for", kDeadline)) << daemon.output();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(milliseconds(10000)), 0) << daemon.output();
  EXPECT_THAT(daemon.output(), inOrder({"E WispPollRequestHandler: IOError: Status Code: 503",
                                        kWaiting, "I Main: Received termination signal."}));
  EXPECT_EQ(daemon.count("I HttpClient: Retry"), 0u);
}

// A registration task opens the cache when it runs; a cache that cannot be
// opened ends the daemon (on purpose: the supervisor restarts it) with the
// reason in its log.
TEST_F(DaemonEndToEndTest, UnusableCacheEndsTheDaemonWithItsReasonInTheLog) {
  const std::string cache = harness_.root().file("var/local/nyx_registration_cache.db");
  ASSERT_EQ(mkdir(cache.c_str(), 0700), 0);
  for (const char* property : {"nyx_register", "nyx_unregister"}) {
    SCOPED_TRACE(property);
    ChildProcess& daemon = harness_.startDaemon();
    try {
      harness_.write(property, "sender-a");
    } catch (const std::runtime_error&) {  // nyxd may end before it answers
    }
    EXPECT_TRUE(daemon.waitForLine(
        "E Main: Uncaught exception, terminating: Failed to open " + cache, kDeadline))
        << daemon.output();
    EXPECT_EQ(daemon.waitForExit(kDeadline), -SIGABRT);
  }
}

TEST_F(DaemonEndToEndTest, EventsAreDroppedWhileTheFrameworkIsNotUp) {
  ChildProcess& daemon = harness_.startDaemon();
  // Starting: only 1 is up, and a gate that took any non-zero value for up
  // would let these through.
  harness_.write("frameworkStarted", 2, "com.corvid.shell");
  harness_.write("wanRing", 1);
  harness_.write("FrameworkStarted", "");
  EXPECT_TRUE(daemon.waitForLine(kFrameworkDown, kDeadline, 2));
  harness_.stopShell();
  harness_.write("credentialsInstalled", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "E Main: HbusGetIntProperty failed, prop = frameworkStarted, status = 3", kDeadline));
  EXPECT_TRUE(daemon.waitForLine(kFrameworkDown, kDeadline, 3));
  EXPECT_EQ(daemon.count("Processing task."), 0u);
}

// Every event the daemon listens to, with the reason of the poll it starts,
// or "" for none. Each poll ends before the next event, so that none is
// coalesced with another.
TEST_F(DaemonEndToEndTest, EachEventPollsWithItsReasonOrDoesNothing) {
  struct Row {
    const char* property;
    std::variant<int, std::string> value;
    const char* reason;
  };
  const Row rows[] = {
      {"wanRing", 0, "NUDGE"},
      {"wanRing", 1, "NUDGE"},
      {"credentialsInstalled", 0, "NetworkStartup"},
      {"credentialsInstalled", 1, "NetworkStartup"},
      {"managementStateChanged", 1, ""},
      {"managementStateChanged", 2, ""},
      {"managementStateChanged", -1, ""},
      {"managementStateChanged", 0, "NetworkStartup"},
      {"resuming", 0, "NetworkStartup"},
      {"resuming", 1, "NetworkStartup"},
      {"interfaceChange", "wlan0", "NetworkStartup"},
      {"FrameworkStarted", "wlan0", "NetworkStartup"},
  };
  ChildProcess& daemon = harness_.startDaemon();
  std::vector<std::string> reasons;
  size_t ignored = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.property) + ", row " + std::to_string(&row - rows));
    harness_.write(row.property, row.value);
    if (!*row.reason) {
      // A push trigger always polls: its poll is to be the only one.
      ASSERT_TRUE(daemon.waitForLine(
          "I Main: Received missed NUDGE event: " + std::string(row.property) + ".", kDeadline,
          ++ignored));
      harness_.write("wanRing", 1);
    }
    reasons.push_back(*row.reason ? row.reason : "NUDGE");
    ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, reasons.size() + 1)) << daemon.output();
  }
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), reasons);
  EXPECT_EQ(daemon.count("I Main: Processing task."), reasons.size());
}

// Each task signs for the customer active when its event arrived: the
// trigger queued behind the pending poll comes after one change of customer
// and before another.
TEST_F(DaemonEndToEndTest, MissedEventsAreDroppedWhileAPollIsPendingButTriggersQueue) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "3", "--only", "fetch", "--count", "1"});
  harness_.write("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline));
  harness_.write("resuming", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "I Main: Ignoring NUDGE event, because NUDGE tasks are already pending", kDeadline));
  harness_.root().writePlatformFile("customer", "customer-2\n");
  harness_.write("wanRing", 1);  // answered once its task is queued
  harness_.root().writePlatformFile("customer", "customer-3\n");
  EXPECT_TRUE(daemon.waitForLine("I Main: Processing task.", kDeadline, 2));
  EXPECT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 3));
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), (std::vector<std::string>{"NUDGE", "NUDGE"}));
  EXPECT_EQ(fetchHeaders(harness_, "X-Device-Customer"),
            (std::vector<std::string>{"customer-1", "customer-2"}));
}

// Answers from the cache: the registration flood of DaemonSlowTest.
TEST_F(DaemonEndToEndTest, RegistersPollsDeliversQueuesPurgesAndUnregisters) {
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  const std::string receiverLog = harness_.root().file("receiver.jsonl");
  auto app = harness_.startTool("simulators/nyx-sample-app", {"--log", appLog}, true);
  auto receiver = harness_.startTool("simulators/nyx-receiver-sim",
                                     {"com.example.weather", "--log", receiverLog});
  app->writeInput("register sender-a, sender-b\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 1)) << daemon.output();
  rapidjson::Document registrations = harness_.mock({"registrations"});
  ASSERT_EQ(registrations["registrations"].Size(), 1u);
  const std::string id = registrations["registrations"][0]["id"].GetString();
  EXPECT_EQ(appAnswer(appLog, 0), "{\"registration_id\":\"" + id + "\"}");

  harness_.mock({"enqueue", "com.example.weather", "rain at noon"});
  harness_.mock({"enqueue-app", id, "--sender", "sender-a", "--data", "greeting=hello"});
  harness_.write("wanRing", 1);
  ASSERT_TRUE(waitForJsonLines(receiverLog, 1)) << daemon.output();
  ASSERT_TRUE(waitForJsonLines(appLog, 2)) << daemon.output();
  EXPECT_NE(jsonLines(appLog)[1].find("hello"), std::string::npos);
  ASSERT_TRUE(waitUntil([&] { return harness_.mock({"acks"})["acks"].Size() == 2; }, kDeadline))
      << daemon.output();
  const rapidjson::Document acks = harness_.mock({"acks"});
  for (const auto& ack : acks["acks"].GetArray()) {
    EXPECT_EQ(ack["status"].GetInt(), 1);
  }
  EXPECT_EQ(harness_.mock({"pending"})["messages"].Size(), 0u);  // no ack asked for a retry
  EXPECT_EQ(daemon.count("I WispMessagePurger: Sent purge message request."), 2u);

  app->writeInput("unregister\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 3));
  EXPECT_EQ(appAnswer(appLog, 2), "{\"old_registration_id\":\"" + id + "\",\"unregistered\":true}");
  EXPECT_TRUE(harness_.mock({"registrations"})["registrations"][0]["revoked"].GetBool());
}

}  // namespace
}  // namespace nyxtest
