#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

constexpr milliseconds kDeadline(10000);

std::optional<int> run(const std::vector<std::string>& argv) {
  ChildProcess child({argv});
  auto status = child.waitForExit(kDeadline);
  child.waitForOutputClosed(kDeadline);
  return status;
}

TEST(ChildProcessTest, FailsTheTestWhenAndOnlyWhenAChildPrintsASanitizerReport) {
  const struct {
    const char* line;
    bool report;
  } cases[] = {
      {"==4242==ERROR: AddressSanitizer: heap-use-after-free on address 0x602000000010", true},
      {"==4242==ERROR: LeakSanitizer: detected memory leaks", true},
      {"WARNING: ThreadSanitizer: data race (pid=4242)", true},
      {"daemon/Main.cpp:42:7: runtime error: signed integer overflow", true},
      {"E Main: Uncaught exception, terminating: no key customer", false},
      {"hbus: error: status 1", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::vector<std::string> argv = {"/bin/sh", "-c", "printf '%s\\n' \"$1\" >&2", "-",
                                           c.line};
    if (c.report) {
      EXPECT_NONFATAL_FAILURE(run(argv), "sanitizer report from child");
    } else {
      run(argv);
    }
  }
}

// A child that ends but leaves a process running in its group (a shell's
// background job) fails the test, and the process is stopped.
TEST(ChildProcessTest, FailsTheTestWhenAChildLeavesAProcessRunning) {
  pid_t left = 0;
  EXPECT_NONFATAL_FAILURE(
      {
        ChildProcess child({{"/bin/sh", "-c", "sleep 600 </dev/null >/dev/null 2>&1 & echo $!"}});
        ASSERT_EQ(child.waitForExit(kDeadline), 0);
        ASSERT_TRUE(child.waitForLine("", kDeadline));
        left = std::stoi(child.lines().front());
      },
      "left processes running:");
  ASSERT_GT(left, 0);
  EXPECT_TRUE(nyxtest::waitUntil(
      [&] {
        std::ifstream stat("/proc/" + std::to_string(left) + "/stat");
        std::string text;
        std::getline(stat, text);
        return text.empty() || text.find(") Z ") != std::string::npos;
      },
      kDeadline))
      << "process " << left << " is still running";
}

// Run by the test below in a child: holds a private bus, prints its address
// and exits at the first input line without running destructors.
TEST(PrivateBusHelper, DISABLED_ExitsWhileHoldingABus) {
  nyxtest::PrivateBus bus;
  std::cout << "bus-address " << bus.address() << std::endl;
  std::string line;
  std::getline(std::cin, line);
  _exit(66);
}

TEST(PrivateBusTest, StopsItsDaemonWhenTheTestProcessDiesWithoutCleaningUp) {
  ChildProcess holder({{nyxtest::binaryDir() + "/tests/support/test_support_test",
                        "--gtest_also_run_disabled_tests",
                        "--gtest_filter=PrivateBusHelper.DISABLED_ExitsWhileHoldingABus"},
                       true,
                       true});
  ASSERT_TRUE(holder.waitForLine("bus-address ", kDeadline)) << holder.output();
  std::string address;
  for (const auto& line : holder.lines()) {
    if (line.rfind("bus-address ", 0) == 0) {
      address = line.substr(12);
    }
  }
  const std::vector<std::string> ping = {"dbus-send",
                                         "--bus=" + address,
                                         "--print-reply",
                                         "--dest=org.freedesktop.DBus",
                                         "/org/freedesktop/DBus",
                                         "org.freedesktop.DBus.GetId"};
  ASSERT_EQ(run(ping), 0) << address;

  holder.writeInput("die\n");
  ASSERT_EQ(holder.waitForExit(kDeadline), 66) << holder.output();
  EXPECT_TRUE(nyxtest::waitUntil([&] { return run(ping) != 0; }, kDeadline))
      << "the private bus outlived its test at " << address;
}

}  // namespace
