// The real nyxd, end to end: a private bus, the mock messaging server, the
// device simulators and the hbus tool. Tests wait on what the daemon prints
// or what the fakes record, each with a deadline; none sleeps a fixed time.
#include <gtest/gtest.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "hbus.h"
#include "tests/e2e/DaemonHarness.h"
#include "tests/support/LocalHttpServer.h"

namespace nyxtest {
namespace {

constexpr milliseconds kDeadline(20000);
const char kWaiting[] = "I Main: Waiting for tasks.";
const char kFrameworkDown[] = "I Main: Ignoring NUDGE event, because framework is not yet up";

// Whether the lines hold each text, in this order.
bool inOrder(const std::vector<std::string>& lines, const std::vector<std::string>& texts) {
  auto at = lines.begin();
  for (const auto& text : texts) {
    at = std::find_if(at, lines.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
    if (at == lines.end()) {
      return false;
    }
  }
  return true;
}

std::vector<std::string> jsonLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

bool waitForJsonLines(const std::string& path, size_t count) {
  return waitUntil([&] { return jsonLines(path).size() >= count; }, kDeadline);
}

// The value that the sample app logged on line `index`: what the daemon wrote it.
std::string appAnswer(const std::string& path, size_t index) {
  rapidjson::Document entry;
  entry.Parse(jsonLines(path).at(index));
  return entry["value"].GetString();
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

TEST_F(DaemonEndToEndTest, StartsUpInOrderAndRefusesASecondInstance) {
  ChildProcess& daemon = harness_.startDaemon();
  EXPECT_TRUE(inOrder(daemon.lines(), {"I Main: Registering event callbacks.",
                                       "I Main: Registering property callbacks.",
                                       "I Main: Starting the event listener thread.", kWaiting}))
      << daemon.output();
  EXPECT_EQ(readFile(harness_.root().file("var/run/nyx.pid")).find(std::to_string(daemon.pid())),
            0u);

  auto second = harness_.nyxd();
  EXPECT_EQ(second->waitForExit(kDeadline), 255);
  EXPECT_TRUE(second->waitForLine("W Main: NYX Daemon is already running.", kDeadline));
  EXPECT_TRUE(daemon.running());
}

TEST_F(DaemonEndToEndTest, StopsAfterTheRunningTaskOnSigterm) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "3", "--only", "fetch"});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline)) << daemon.output();
  harness_.writeDaemon("wanRing", 1);  // queued behind the running task, never run
  ASSERT_TRUE(daemon.waitForLine("Received NUDGE event", kDeadline, 2));
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(kDeadline), 0) << daemon.output();
  EXPECT_EQ(daemon.countLines("I Main: Processing task."), 1u);
  EXPECT_TRUE(inOrder(daemon.lines(), {"I Main: Processing task.", kWaiting,
                                       "I Main: Received termination signal."}))
      << daemon.output();
  EXPECT_NE(access(harness_.root().file("var/run/nyx.pid").c_str(), F_OK), 0);
}

// A bus callback still running at shutdown (here one waiting for the shell,
// which has stopped answering, in the framework gate) finishes first, the
// task it queues is never run, and nyxd exits 0. Exit once tore the handle
// table and the task queue down under such a callback and hung.
TEST_F(DaemonEndToEndTest, StopsCleanlyWhileABusCallbackIsStillRunning) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "3", "--only", "fetch"});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline)) << daemon.output();
  harness_.shell().signal(SIGSTOP);
  ChildProcess writer(
      {{binaryDir() + "/tools/hbus/hbus", "set-int", "cobalt.device.messaging", "wanRing", "1"},
       true});
  ASSERT_TRUE(daemon.waitForLine("Received NUDGE event: wanRing.", kDeadline, 2));
  daemon.signal(SIGTERM);
  ASSERT_TRUE(daemon.waitForLine("Received termination signal.", kDeadline)) << daemon.output();
  harness_.shell().signal(SIGCONT);
  ASSERT_EQ(daemon.waitForExit(kDeadline), 0) << daemon.output();
  EXPECT_EQ(daemon.countLines("I Main: Processing task."), 1u);
}

// A stop while the worker waits between attempts (here up to four minutes,
// as the server asked) ends the wait within a second: the poll ends with its
// failure, as after its last attempt, and nyxd exits well within the unit's
// stop time.
TEST_F(DaemonEndToEndTest, StopsWithinSecondsWhileWaitingToRetry) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "status", "--status", "503", "--retry-after", "120", "--only", "fetch",
                 "--count", "4"});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("I HttpClient: Waiting for", kDeadline)) << daemon.output();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(milliseconds(10000)), 0) << daemon.output();
  EXPECT_TRUE(inOrder(daemon.lines(), {"E WispPollRequestHandler: IOError: Status Code: 503",
                                       kWaiting, "I Main: Received termination signal."}))
      << daemon.output();
  EXPECT_EQ(daemon.countLines("I HttpClient: Retry"), 0u);
}

// When the bus goes away, nyxd can hear nothing again: it ends as a failure,
// saying why, so that its supervisor starts it again on the new bus.
TEST_F(DaemonEndToEndTest, LosingTheBusEndsTheDaemonWithAClearLine) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.bus().stop();
  EXPECT_EQ(daemon.waitForExit(kDeadline), 1) << daemon.output();
  EXPECT_TRUE(daemon.waitForLine(
      "E Hbus: Lost the connection to the bus (service cobalt.device.messaging)", kDeadline))
      << daemon.output();
}

TEST_F(DaemonEndToEndTest, SLOW_StopsWithinTheIdleWaitOnSigterm) {
  ChildProcess& daemon = harness_.startDaemon();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(milliseconds(25000)), 0) << daemon.output();
  EXPECT_EQ(daemon.countLines(kWaiting), 1u);
  EXPECT_EQ(daemon.countLines("I Main: Received termination signal."), 1u);
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
  size_t ignored = 0;
  for (int frameworkStarted : {0, 2}) {  // not started, starting
    SCOPED_TRACE(frameworkStarted);
    ASSERT_EQ(harness_.hbus({"set-int", "com.corvid.shell", "frameworkStarted",
                             std::to_string(frameworkStarted)}),
              0);
    harness_.writeDaemon("wanRing", 1);
    harness_.writeDaemon("FrameworkStarted", "");
    EXPECT_TRUE(daemon.waitForLine(kFrameworkDown, kDeadline, ignored += 2));
  }
  harness_.stopShell();
  harness_.writeDaemon("credentialsInstalled", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "E Main: HbusGetIntProperty failed, prop = frameworkStarted, status = 3", kDeadline));
  EXPECT_TRUE(daemon.waitForLine(kFrameworkDown, kDeadline, ignored + 1));
  EXPECT_EQ(daemon.countLines("Processing task."), 0u);
}

TEST_F(DaemonEndToEndTest, ManagementStateChangedPollsOnlyForZero) {
  ChildProcess& daemon = harness_.startDaemon();
  for (int value : {1, 0}) {
    harness_.writeDaemon("managementStateChanged", value);
    ASSERT_TRUE(daemon.waitForLine("I Main: Received missed NUDGE event: managementStateChanged.",
                                   kDeadline, 2 - value));
  }
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 2)) << daemon.output();
  EXPECT_EQ(daemon.countLines("I Main: Received NUDGE event: missedNUDGE."), 1u);
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), std::vector<std::string>{"NetworkStartup"});
}

TEST_F(DaemonEndToEndTest, MissedEventsAreDroppedWhileAPollIsPendingButTriggersQueue) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.mock({"fault", "delay", "--delay", "2", "--only", "fetch", "--count", "1"});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine("Making request to", kDeadline));
  harness_.writeDaemon("resuming", 1);
  EXPECT_TRUE(daemon.waitForLine(
      "I Main: Ignoring NUDGE event, because NUDGE tasks are already pending", kDeadline));
  harness_.writeDaemon("wanRing", 1);
  EXPECT_TRUE(daemon.waitForLine("I Main: Processing task.", kDeadline, 2));
  EXPECT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 3));
  EXPECT_EQ(fetchHeaders(harness_, "x-zvo-reason"), (std::vector<std::string>{"NUDGE", "NUDGE"}));
}

TEST_F(DaemonEndToEndTest, RegistersAnswersFromTheCacheAndUnregisters) {
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  auto app = harness_.startSimulator("nyx-sample-app", {"--log", appLog}, true);
  app->writeInput("register sender-a, sender-b\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 1)) << daemon.output();
  rapidjson::Document registrations = harness_.mock({"registrations"});
  ASSERT_EQ(registrations["registrations"].Size(), 1u);
  const std::string id = registrations["registrations"][0]["id"].GetString();
  EXPECT_EQ(appAnswer(appLog, 0), "{\"registration_id\":\"" + id + "\"}");

  app->writeInput("register sender-a, sender-b\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 2));
  EXPECT_EQ(appAnswer(appLog, 1), "{\"registration_id\":\"" + id + "\"}");
  EXPECT_TRUE(daemon.waitForLine("W NYXRegistrar: Spurious call for registration", kDeadline));
  EXPECT_EQ(harness_.mock({"registrations"})["registrations"].Size(), 1u);

  app->writeInput("unregister\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 3));
  EXPECT_EQ(appAnswer(appLog, 2), "{\"old_registration_id\":\"" + id + "\",\"unregistered\":true}");
  EXPECT_TRUE(harness_.mock({"registrations"})["registrations"][0]["revoked"].GetBool());
}

TEST_F(DaemonEndToEndTest, PollDeliversPlainAndApplicationMessagesAndQueuesTheirPurges) {
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  const std::string receiverLog = harness_.root().file("receiver.jsonl");
  auto app = harness_.startSimulator("nyx-sample-app", {"--log", appLog}, true);
  auto receiver =
      harness_.startSimulator("nyx-receiver-sim", {"com.example.weather", "--log", receiverLog});
  app->writeInput("register sender-a\n");
  ASSERT_TRUE(waitForJsonLines(appLog, 1));
  const std::string id = harness_.mock({"registrations"})["registrations"][0]["id"].GetString();

  harness_.mock({"enqueue", "com.example.weather", "rain at noon"});
  harness_.mock({"enqueue-app", id, "--sender", "sender-a", "--data", "greeting=hello"});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(waitForJsonLines(receiverLog, 1)) << daemon.output();
  ASSERT_TRUE(waitForJsonLines(appLog, 2)) << daemon.output();
  EXPECT_NE(jsonLines(appLog)[1].find("hello"), std::string::npos);
  ASSERT_TRUE(waitUntil([&] { return harness_.mock({"acks"})["acks"].Size() == 2; }, kDeadline))
      << daemon.output();
  const rapidjson::Document acks = harness_.mock({"acks"});
  for (const auto& ack : acks["acks"].GetArray()) {
    EXPECT_EQ(ack["status"].GetInt(), 1);
    EXPECT_FALSE(ack["retry"].GetBool());
  }
  EXPECT_EQ(harness_.mock({"pending"})["messages"].Size(), 0u);
  EXPECT_EQ(daemon.countLines("I WispMessagePurger: Sent purge message request."), 2u);
}

TEST_F(DaemonEndToEndTest, EachTaskSignsForTheCustomerActiveWhenItsEventArrived) {
  ChildProcess& daemon = harness_.startDaemon();
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 2));
  harness_.root().writePlatformFile("customer", "customer-2\n");
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 3));
  EXPECT_EQ(fetchHeaders(harness_, "X-Device-Customer"),
            (std::vector<std::string>{"customer-1", "customer-2"}));
}

// What /proc shows of a process at its busiest: open files and resident
// memory. Under qemu-arm the process is the emulator running nyxd.
struct PeakUsage {
  void sample(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    std::error_code error;
    size_t files = 0;
    for (std::filesystem::directory_iterator fd(proc + "/fd", error), end; !error && fd != end;
         fd.increment(error)) {
      ++files;
    }
    openFiles = std::max(openFiles, files);
    rssKb = std::max(rssKb, residentKb(pid));
  }
  static size_t residentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) == 0) {
        return std::stoul(line.substr(6));
      }
    }
    return 0;
  }
  size_t openFiles = 0;
  size_t rssKb = 0;
};

// Waits for the condition with a deadline, sampling the daemon meanwhile.
bool waitSampling(const std::function<bool()>& condition, ChildProcess& daemon, PeakUsage& peak,
                  milliseconds timeout) {
  return waitUntil(
      [&] {
        peak.sample(daemon.pid());
        return condition();
      },
      timeout);
}

// Floods take long under qemu-arm: the emulated daemon handles every write.
constexpr milliseconds kFloodDeadline(400000);

// An application writes "nyx_register" 1,000 more times while the server
// holds its answer to the first: every write is queued, none holds a file
// (the daemon runs with a service's 1,024), and all are answered, the first
// by the server and the rest from the cache.
TEST_F(DaemonEndToEndTest, SLOW_FloodOfRegistrationsWhileTheServerHoldsItsAnswerIsAnswered) {
  constexpr size_t kWrites = 1001;
  HttpAnswer held(200, {}, R"({"registrationID":"reg-flood"})");
  held.hold = true;
  LocalHttpServer server({held});
  harness_.root().setConfig({{"url.devicemessaging.registration", server.url("/register")}});
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  auto app = harness_.startSimulator("nyx-sample-app", {"--log", appLog}, true);
  std::string writes;
  for (size_t write = 0; write < kWrites; ++write) {
    writes += "register sender-a\n";
  }
  app->writeInput(writes);

  PeakUsage peak;
  ASSERT_TRUE(waitSampling(
      [&] { return daemon.countLines("I Main: Received NYX registration request.") >= kWrites; },
      daemon, peak, kFloodDeadline))
      << daemon.countLines("Received NYX registration request.");
  ASSERT_EQ(server.requests().size(), 1u);
  ASSERT_TRUE(daemon.running()) << daemon.output();
  server.release();
  ASSERT_TRUE(waitSampling([&] { return jsonLines(appLog).size() >= kWrites; }, daemon, peak,
                           kFloodDeadline))
      << jsonLines(appLog).size() << " answers";

  for (size_t answer = 0; answer < kWrites; ++answer) {
    ASSERT_EQ(appAnswer(appLog, answer), R"({"registration_id":"reg-flood"})") << answer;
  }
  EXPECT_EQ(daemon.countLines("W NYXRegistrar: Spurious call for registration"), kWrites - 1);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(daemon.running());
  EXPECT_LT(peak.openFiles, 100u);
  std::cout << "registration flood peak: " << peak.openFiles << " open files, " << peak.rssKb
            << " kB resident\n";
}

// 2,000 push triggers while the server holds a page: every one queues a poll
// and every poll runs; afterwards the memory of the queue is given back.
TEST_F(DaemonEndToEndTest, SLOW_FloodOfPushTriggersWhileAPageIsHeldRunsEveryPoll) {
  constexpr size_t kWrites = 2000;
  ChildProcess& daemon = harness_.startDaemon();
  harness_.writeDaemon("wanRing", 1);  // a first poll, so that start-up costs are behind us
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 2)) << daemon.output();
  const size_t before = PeakUsage::residentKb(daemon.pid());

  HttpAnswer held(200, {}, "{}");
  held.hold = true;
  LocalHttpServer pageServer({held});
  harness_.root().setConfig({{"url.devicemessaging.getmessages", pageServer.url("/messages")}});
  harness_.writeDaemon("wanRing", 1);
  ASSERT_TRUE(waitUntil([&] { return pageServer.requests().size() == 1; }, kDeadline));
  // Every later poll goes to the mock server again (the address is read anew
  // for every request).
  harness_.root().setConfig(
      {{"url.devicemessaging.getmessages", harness_.serverUrl() + "/v1/messages"}});

  std::unique_ptr<HbusHandleStruct, decltype(&HbusClose)> writer(HbusInitEx(nullptr, nullptr),
                                                                 HbusClose);
  ASSERT_NE(writer, nullptr);
  PeakUsage peak;
  for (size_t write = 0; write < kWrites; ++write) {
    ASSERT_EQ(HbusSetIntProperty(writer.get(), "cobalt.device.messaging", "wanRing", 1), 0);
    if (write % 100 == 0) {
      peak.sample(daemon.pid());
    }
  }
  ASSERT_TRUE(waitSampling(
      [&] { return daemon.countLines("I Main: Received NUDGE event: wanRing.") >= kWrites + 2; },
      daemon, peak, kFloodDeadline));
  pageServer.release();
  ASSERT_TRUE(waitSampling([&] { return daemon.countLines(kWaiting) >= kWrites + 3; }, daemon, peak,
                           kFloodDeadline))
      << daemon.countLines(kWaiting);

  EXPECT_EQ(harness_.mock({"stats"})["requests"]["fetch"].GetUint(), kWrites + 1);
  EXPECT_TRUE(daemon.running());
  EXPECT_LT(peak.openFiles, 100u);
  const size_t after = PeakUsage::residentKb(daemon.pid());
  std::cout << "push-trigger flood: " << before << " kB resident before, peak " << peak.openFiles
            << " open files and " << peak.rssKb << " kB resident, " << after << " kB after\n";
  EXPECT_LT(after, before + 4096) << "kB resident after the flood";
}

}  // namespace
}  // namespace nyxtest
