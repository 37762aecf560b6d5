#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

constexpr milliseconds kDeadline(10000);

void runChildPrinting(const std::string& line) {
  ChildProcess::Options options;
  options.argv = {"/bin/sh", "-c", "printf '%s\\n' \"$1\" >&2", "child", line};
  ChildProcess child(options);
  child.waitForExit(kDeadline);
  child.waitForOutputClosed(kDeadline);
}

TEST(ChildProcessTest, FailsTheTestWhenAChildPrintsASanitizerReport) {
  const char* const reports[] = {
      "==4242==ERROR: AddressSanitizer: heap-use-after-free on address 0x602000000010",
      "==4242==ERROR: LeakSanitizer: detected memory leaks",
      "WARNING: ThreadSanitizer: data race (pid=4242)",
      "daemon/Main.cpp:42:7: runtime error: signed integer overflow",
  };
  for (const char* report : reports) {
    SCOPED_TRACE(report);
    EXPECT_NONFATAL_FAILURE(runChildPrinting(report), "sanitizer report from child");
  }
}

TEST(ChildProcessTest, LeavesTheTestAloneWhenAChildPrintsOrdinaryErrors) {
  const char* const lines[] = {
      "E Main: Uncaught exception, terminating: no key customer",
      "RuntimeError: the mock server refused the page",
      "hbus: error: status 1",
  };
  for (const char* line : lines) {
    SCOPED_TRACE(line);
    runChildPrinting(line);
  }
}

// Whether something accepts connections on a bus address of dbus-daemon's
// "unix:abstract=..." or "unix:path=..." form.
bool busAcceptsConnections(const std::string& address) {
  sockaddr_un socketAddress{};
  socketAddress.sun_family = AF_UNIX;
  socklen_t length = sizeof(socketAddress.sun_family);
  auto valueOf = [&](const std::string& key) -> std::string {
    auto start = address.find(key);
    if (start == std::string::npos) {
      return "";
    }
    start += key.size();
    return address.substr(start, address.find(',', start) - start);
  };
  if (std::string name = valueOf("abstract="); !name.empty()) {
    memcpy(socketAddress.sun_path + 1, name.data(), name.size());
    length += static_cast<socklen_t>(1 + name.size());
  } else if (std::string path = valueOf("path="); !path.empty()) {
    memcpy(socketAddress.sun_path, path.data(), path.size());
    length += static_cast<socklen_t>(path.size() + 1);
  } else {
    ADD_FAILURE() << "unexpected bus address " << address;
    return false;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool connected = connect(fd, reinterpret_cast<sockaddr*>(&socketAddress), length) == 0;
  close(fd);
  return connected;
}

// Run by the test below in a child of its own: holds a private bus, prints
// its address and dies at the first input line without running destructors,
// as a test does that a sanitizer stops.
TEST(PrivateBusHelper, DISABLED_AbortsWhileHoldingABus) {
  nyxtest::PrivateBus bus;
  std::cout << "bus-address " << bus.address() << std::endl;
  std::string line;
  std::getline(std::cin, line);
  _exit(66);
}

TEST(PrivateBusTest, StopsItsDaemonWhenTheTestProcessDiesWithoutCleaningUp) {
  ChildProcess::Options options;
  options.argv = {nyxtest::binaryDir() + "/tests/support/test_support_test",
                  "--gtest_also_run_disabled_tests",
                  "--gtest_filter=PrivateBusHelper.DISABLED_AbortsWhileHoldingABus"};
  options.projectBinary = true;
  options.inputPipe = true;
  ChildProcess holder(options);
  ASSERT_TRUE(holder.waitForLine("bus-address ", kDeadline)) << holder.output();
  std::string address;
  for (const auto& line : holder.lines()) {
    if (line.rfind("bus-address ", 0) == 0) {
      address = line.substr(strlen("bus-address "));
    }
  }
  ASSERT_TRUE(busAcceptsConnections(address)) << address;

  holder.writeInput("die\n");
  ASSERT_EQ(holder.waitForExit(kDeadline), 66) << holder.output();
  EXPECT_TRUE(nyxtest::waitUntil([&] { return !busAcceptsConnections(address); }, kDeadline))
      << "the private bus outlived its test at " << address;
}

}  // namespace
