// The real nyxd, end to end: a private bus, the mock messaging server, the
// device simulators and the hbus tool. Tests wait on what the daemon prints
// or what the fakes record, each with a deadline; none sleeps a fixed time.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/e2e/DaemonHarness.h"

namespace nyxtest {
namespace {

constexpr milliseconds kDeadline(20000);

size_t indexOfLine(const std::vector<std::string>& lines, const std::string& text,
                   size_t from = 0) {
  for (size_t i = from; i < lines.size(); ++i) {
    if (lines[i].find(text) != std::string::npos) {
      return i;
    }
  }
  return std::string::npos;
}

// The length of the list the mock client answers a command with, found under
// member (the command's own name unless given).
size_t mockCount(DaemonHarness& harness, const char* command, const char* member = nullptr) {
  rapidjson::Document answer = harness.mock({command});
  return answer[member ? member : command].Size();
}

// A header of a request the server recorded ([name, value] pairs as received).
std::string headerOf(const rapidjson::Value& request, const char* name) {
  for (const auto& header : request["headers"].GetArray()) {
    if (strcasecmp(header[0].GetString(), name) == 0) {
      return header[1].GetString();
    }
  }
  return "";
}

// The values of one header over the fetch requests the server received,
// oldest first.
std::vector<std::string> fetchHeaders(DaemonHarness& harness, const char* name) {
  std::vector<std::string> values;
  rapidjson::Document answer = harness.mock({"requests"});
  for (const auto& request : answer["requests"].GetArray()) {
    if (request["method"] == "GET") {
      values.push_back(headerOf(request, name));
    }
  }
  return values;
}

// One member of a JSON-lines log entry, as text ("" when absent).
std::string logMember(const std::string& line, const char* member) {
  rapidjson::Document entry;
  entry.Parse(line);
  if (entry.HasParseError() || !entry.IsObject() || !entry.HasMember(member)) {
    return "";
  }
  const rapidjson::Value& value = entry[member];
  if (value.IsString()) {
    return value.GetString();
  }
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return text.GetString();
}

class DaemonEndToEndTest : public ::testing::Test {
 protected:
  DaemonHarness harness_;
};

TEST_F(DaemonEndToEndTest, StartsUpInOrderAndRefusesASecondInstance) {
  ChildProcess& daemon = harness_.startDaemon();
  const auto lines = daemon.lines();
  const char* expected[] = {
      "I Main: Registering event callbacks.", "I Main: Registering property callbacks.",
      "I Main: Starting the event listener thread.", "I Main: Waiting for tasks."};
  size_t at = 0;
  for (const char* line : expected) {
    at = indexOfLine(lines, line, at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "\n"
                                     << daemon.output();
  }
  EXPECT_EQ(readFile(harness_.root().file("var/run/nyx.pid")).find(std::to_string(daemon.pid())),
            0u);

  auto second = harness_.startSecondDaemon();
  EXPECT_EQ(second->waitForExit(kDeadline), 255);
  EXPECT_TRUE(second->waitForLine("W Main: NYX Daemon is already running.", kDeadline));
  EXPECT_TRUE(daemon.running());
}

TEST_F(DaemonEndToEndTest, StopsAfterTheRunningTaskOnSigterm) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "3", "--only", "fetch"});
  harness_.writeDaemonInt("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline)) << daemon.output();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(kDeadline), 0) << daemon.output();
  const auto lines = daemon.lines();
  size_t processed = indexOfLine(lines, "I Main: Processing task.");
  size_t waiting = indexOfLine(lines, "I Main: Waiting for tasks.", processed);
  size_t stopped = indexOfLine(lines, "I Main: Received termination signal.", waiting);
  EXPECT_NE(stopped, std::string::npos) << daemon.output();
  EXPECT_NE(access(harness_.root().file("var/run/nyx.pid").c_str(), F_OK), 0);
}

TEST_F(DaemonEndToEndTest, SLOW_StopsWithinTheIdleWaitOnSigterm) {
  ChildProcess& daemon = harness_.startDaemon();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(milliseconds(25000)), 0) << daemon.output();
  EXPECT_EQ(daemon.countLines("I Main: Waiting for tasks."), 1u);
  EXPECT_EQ(daemon.countLines("I Main: Received termination signal."), 1u);
}

// A registration handler is built in the bus callback and opens the cache
// there. When that fails, the daemon ends as for any uncaught exception,
// with the reason in its log, and leaves its restart to the supervisor.
// (Ending at the callback's noexcept boundary once lost the reason.)
TEST_F(DaemonEndToEndTest, HandlerThatCannotBeBuiltEndsTheDaemonWithItsReasonInTheLog) {
  const std::string cache = harness_.root().file("var/local/nyx_registration_cache.db");
  ASSERT_EQ(mkdir(cache.c_str(), 0700), 0);
  for (const char* property : {"nyx_register", "nyx_unregister"}) {
    SCOPED_TRACE(property);
    ChildProcess& daemon = harness_.startDaemon();
    harness_.hbus({"set", "cobalt.device.messaging", property, "sender-a"});
    EXPECT_TRUE(daemon.waitForLine(
        "E Main: Uncaught exception, terminating: Failed to open " + cache, kDeadline))
        << daemon.output();
    EXPECT_EQ(daemon.waitForExit(kDeadline), -SIGABRT);
    daemon.waitForOutputClosed(kDeadline);
  }
}

TEST_F(DaemonEndToEndTest, EventsAreDroppedWhileTheFrameworkIsNotUp) {
  ChildProcess& daemon = harness_.startDaemon();
  struct Case {
    const char* shellState;
    int value;
  };
  const Case cases[] = {{"not started", 0}, {"starting", 2}};
  size_t ignored = 0;
  for (const auto& c : cases) {
    ASSERT_EQ(
        harness_.hbus({"set-int", "com.corvid.shell", "frameworkStarted", std::to_string(c.value)}),
        0);
    harness_.writeDaemonInt("wanRing", 1);
    harness_.writeDaemonString("FrameworkStarted", "");
    ignored += 2;
    EXPECT_TRUE(daemon.waitForLine("I Main: Ignoring NUDGE event, because framework is not yet up",
                                   kDeadline, ignored))
        << c.shellState;
  }
  harness_.stopShell();
  harness_.writeDaemonInt("credentialsInstalled", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "E Main: HbusGetIntProperty failed, prop = frameworkStarted, status = 3", kDeadline));
  EXPECT_TRUE(daemon.waitForLine("I Main: Ignoring NUDGE event, because framework is not yet up",
                                 kDeadline, ignored + 1));
  EXPECT_EQ(daemon.countLines("Processing task."), 0u);
}

TEST_F(DaemonEndToEndTest, ManagementStateChangedPollsOnlyForZero) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.writeDaemonInt("managementStateChanged", 1);
  ASSERT_TRUE(daemon.waitForLine("I Main: Received missed NUDGE event: managementStateChanged.",
                                 kDeadline));
  harness_.writeDaemonInt("managementStateChanged", 0);
  ASSERT_TRUE(daemon.waitForLine("I Main: Received missed NUDGE event: managementStateChanged.",
                                 kDeadline, 2));
  ASSERT_TRUE(daemon.waitForLine("I Main: Waiting for tasks.", kDeadline, 2)) << daemon.output();
  EXPECT_EQ(daemon.countLines("I Main: Received NUDGE event: missedNUDGE."), 1u);
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), std::vector<std::string>{"NetworkStartup"});
}

TEST_F(DaemonEndToEndTest, MissedEventsAreDroppedWhileAPollIsPendingButTriggersQueue) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "2", "--only", "fetch", "--count", "1"});
  harness_.writeDaemonInt("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline));
  harness_.writeDaemonInt("resuming", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "I Main: Ignoring NUDGE event, because NUDGE tasks are already pending", kDeadline));
  harness_.writeDaemonInt("wanRing", 1);
  EXPECT_TRUE(daemon.waitForLine("I Main: Processing task.", kDeadline, 2));
  EXPECT_TRUE(daemon.waitForLine("I Main: Waiting for tasks.", kDeadline, 3));
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), (std::vector<std::string>{"NUDGE", "NUDGE"}));
}

TEST_F(DaemonEndToEndTest, RegistersAnswersFromTheCacheAndUnregisters) {
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  auto app = harness_.startSimulator("nyx-sample-app", {"--log", appLog}, true);
  app->writeInput("register sender-a, sender-b\n");
  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(appLog).size() == 1; }, kDeadline))
      << daemon.output();
  rapidjson::Document registrations = harness_.mock({"registrations"});
  ASSERT_EQ(registrations["registrations"].Size(), 1u);
  const std::string id = registrations["registrations"][0]["id"].GetString();
  EXPECT_EQ(logMember(harness_.jsonLines(appLog)[0], "value"),
            "{\"registration_id\":\"" + id + "\"}");

  app->writeInput("register sender-a, sender-b\n");
  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(appLog).size() == 2; }, kDeadline));
  EXPECT_TRUE(daemon.waitForLine("W NYXRegistrar: Spurious call for registration", kDeadline));
  EXPECT_EQ(mockCount(harness_, "registrations"), 1u);

  app->writeInput("unregister\n");
  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(appLog).size() == 3; }, kDeadline));
  EXPECT_EQ(logMember(harness_.jsonLines(appLog)[1], "value"),
            "{\"registration_id\":\"" + id + "\"}");
  EXPECT_EQ(logMember(harness_.jsonLines(appLog)[2], "value"),
            "{\"old_registration_id\":\"" + id + "\",\"unregistered\":true}");
  registrations = harness_.mock({"registrations"});
  EXPECT_TRUE(registrations["registrations"][0]["revoked"].GetBool());
}

TEST_F(DaemonEndToEndTest, PollDeliversPlainAndApplicationMessagesAndQueuesTheirPurges) {
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  const std::string receiverLog = harness_.root().file("receiver.jsonl");
  auto app = harness_.startSimulator("nyx-sample-app", {"--log", appLog}, true);
  auto receiver =
      harness_.startSimulator("nyx-receiver-sim", {"com.example.weather", "--log", receiverLog});
  app->writeInput("register sender-a\n");
  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(appLog).size() == 1; }, kDeadline));
  rapidjson::Document registrations = harness_.mock({"registrations"});
  const std::string id = registrations["registrations"][0]["id"].GetString();

  harness_.mock({"enqueue", "com.example.weather", "rain at noon"});
  harness_.mock({"enqueue-app", id, "--sender", "sender-a", "--data", "greeting=hello"});
  harness_.writeDaemonInt("wanRing", 1);

  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(receiverLog).size() == 1; }, kDeadline))
      << daemon.output();
  ASSERT_TRUE(waitUntil([&] { return harness_.jsonLines(appLog).size() == 2; }, kDeadline))
      << daemon.output();
  EXPECT_NE(harness_.jsonLines(appLog)[1].find("hello"), std::string::npos);
  ASSERT_TRUE(waitUntil([&] { return mockCount(harness_, "acks") == 2; }, kDeadline))
      << daemon.output();
  rapidjson::Document acks = harness_.mock({"acks"});
  for (const auto& ack : acks["acks"].GetArray()) {
    EXPECT_EQ(ack["status"].GetInt(), 1);
    EXPECT_FALSE(ack["retry"].GetBool());
  }
  EXPECT_EQ(mockCount(harness_, "pending", "messages"), 0u);
  EXPECT_EQ(daemon.countLines("I WispMessagePurger: Sent purge message request."), 2u);
}

TEST_F(DaemonEndToEndTest, EachTaskSignsForTheCustomerActiveWhenItsEventArrived) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.writeDaemonInt("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("I Main: Waiting for tasks.", kDeadline, 2));
  harness_.root().writePlatformFile("customer", "customer-2\n");
  harness_.writeDaemonInt("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("I Main: Waiting for tasks.", kDeadline, 3));

  EXPECT_EQ(fetchHeaders(harness_, "X-Device-Customer"),
            (std::vector<std::string>{"customer-1", "customer-2"}));
}

}  // namespace
}  // namespace nyxtest
