// The real nyxd under load and over the idle wait: tests that take long (the
// daemon's 15-second idle wait, floods of thousands of bus writes), run as
// the CTest entry labelled slow.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "daemon/common/COwners.h"
#include "hbus.h"
#include "tests/e2e/DaemonHarness.h"
#include "tests/support/LocalHttpServer.h"

namespace nyxtest {
namespace {

class DaemonSlowTest : public ::testing::Test {
 protected:
  DaemonHarness harness_;
};

// A signal while idle is forgotten when a task arrives within the wait: the
// task runs and nyxd keeps running. A signal that no task follows ends nyxd
// when the wait is over.
TEST_F(DaemonSlowTest, SignalWhileIdleIsForgottenByATaskAndHonouredByTheIdleWait) {
  ChildProcess& daemon = harness_.startDaemon();
  // A signal before the wait begins ends the loop at once: the signal comes
  // once the worker sleeps in the queue.
  const std::string wchan =
      "/proc/" + std::to_string(daemon.pid()) + "/task/" + std::to_string(daemon.pid()) + "/wchan";
  ASSERT_TRUE(
      waitUntil([&] { return readFile(wchan).find("futex") != std::string::npos; }, kDeadline));
  daemon.signal(SIGTERM);
  harness_.write("wanRing", 1);
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 2)) << daemon.output();
  EXPECT_EQ(daemon.count("I Main: Processing task."), 1u);
  EXPECT_FALSE(daemon.waitForExit(milliseconds(3000))) << daemon.output();
  daemon.signal(SIGTERM);
  ASSERT_EQ(daemon.waitForExit(milliseconds(25000)), 0) << daemon.output();
  EXPECT_EQ(daemon.count("I Main: Received termination signal."), 1u);
}

// Floods take long under qemu-arm: the emulated daemon handles every write.
constexpr milliseconds kFloodDeadline(400000);

// What /proc shows of a process at its busiest: open files and resident
// memory. Under qemu-arm the process is the emulator running nyxd.
struct PeakUsage {
  explicit PeakUsage(pid_t pid) : pid(pid) {}
  void sample() {
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    openFiles = std::max<size_t>(openFiles, std::distance(begin(fds), end(fds)));
    rssKb = std::max(rssKb, residentKb(pid));
  }
  // Waits for the condition until the flood deadline, sampling meanwhile.
  bool waitFor(const std::function<bool()>& condition) {
    return waitUntil(
        [&] {
          sample();
          return condition();
        },
        kFloodDeadline);
  }
  static size_t residentKb(pid_t pid) {
    size_t pages = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
  }
  pid_t pid;
  size_t openFiles = 0;
  size_t rssKb = 0;
};

// An application writes "nyx_register" 1,000 more times while the server
// holds its answer to the first: every write is queued, none holds a file
// (the daemon runs with a service's 1,024), and all are answered, the first
// by the server and the rest from the cache.
TEST_F(DaemonSlowTest, FloodOfRegistrationsWhileTheServerHoldsItsAnswerIsAnswered) {
  constexpr size_t kWrites = 1001;
  HttpAnswer held(200, {}, R"({"registrationID":"reg-flood"})");
  held.hold = true;
  LocalHttpServer server({held});
  harness_.root().setConfig({{"url.devicemessaging.registration", server.url("/register")}});
  ChildProcess& daemon = harness_.startDaemon();
  const std::string appLog = harness_.root().file("app.jsonl");
  auto app = harness_.startTool("simulators/nyx-sample-app", {"--log", appLog}, true);
  for (size_t write = 0; write < kWrites; ++write) {
    app->writeInput("register sender-a\n");
  }

  PeakUsage peak(daemon.pid());
  ASSERT_TRUE(peak.waitFor([&] {
    return daemon.count("I Main: Received NYX registration request.") >= kWrites;
  })) << daemon.count("Received NYX registration request.");
  // The worker may still be on its way to the server when the last write
  // has been logged.
  ASSERT_TRUE(waitUntil([&] { return !server.requests().empty(); }, kFloodDeadline));
  ASSERT_EQ(server.requests().size(), 1u);
  ASSERT_TRUE(daemon.running()) << daemon.output();
  ASSERT_TRUE(jsonLines(appLog).empty()) << "answered while the server held its answer";
  server.release();
  ASSERT_TRUE(peak.waitFor([&] { return jsonLines(appLog).size() >= kWrites; }))
      << jsonLines(appLog).size() << " answers";

  for (size_t answer = 0; answer < kWrites; ++answer) {
    ASSERT_EQ(appAnswer(appLog, answer), R"({"registration_id":"reg-flood"})") << answer;
  }
  EXPECT_EQ(daemon.count("W NYXRegistrar: Spurious call for registration"), kWrites - 1);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(daemon.running());
  EXPECT_LT(peak.openFiles, 100u);
  std::cout << "registration flood peak: " << peak.openFiles << " open files, " << peak.rssKb
            << " kB resident\n";
}

// 2,000 push triggers while the server holds a page: every one queues a poll
// and every poll runs; afterwards the memory of the queue is given back.
TEST_F(DaemonSlowTest, FloodOfPushTriggersWhileAPageIsHeldRunsEveryPoll) {
  constexpr size_t kWrites = 2000;
  ChildProcess& daemon = harness_.startDaemon();
  harness_.write("wanRing", 1);  // a first poll, so that start-up costs are behind us
  ASSERT_TRUE(daemon.waitForLine(kWaiting, kDeadline, 2)) << daemon.output();
  const size_t before = PeakUsage::residentKb(daemon.pid());

  HttpAnswer held(200, {}, "{}");
  held.hold = true;
  LocalHttpServer pageServer({held});
  harness_.root().setConfig({{"url.devicemessaging.getmessages", pageServer.url("/messages")}});
  harness_.write("wanRing", 1);
  ASSERT_TRUE(waitUntil([&] { return pageServer.requests().size() == 1; }, kDeadline));
  // Every later poll goes to the mock server again (the address is read anew
  // for every request).
  harness_.root().setConfig(
      {{"url.devicemessaging.getmessages", harness_.serverUrl() + "/v1/messages"}});

  COwner<HbusHandleStruct, HbusClose> writer(HbusInitEx(nullptr, nullptr));
  ASSERT_NE(writer, nullptr);
  PeakUsage peak(daemon.pid());
  for (size_t write = 0; write < kWrites; ++write) {
    ASSERT_EQ(HbusSetIntProperty(writer.get(), "cobalt.device.messaging", "wanRing", 1), 0);
    if (write % 100 == 0) {
      peak.sample();
    }
  }
  ASSERT_TRUE(peak.waitFor(
      [&] { return daemon.count("I Main: Received NUDGE event: wanRing.") >= kWrites + 2; }));
  ASSERT_EQ(daemon.count(kWaiting), 2u) << "a poll ended while the page was held";
  pageServer.release();
  ASSERT_TRUE(peak.waitFor([&] { return daemon.count(kWaiting) >= kWrites + 3; }))
      << daemon.count(kWaiting);

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
