// The daemon monitor's notifications, received on a datagram socket that
// stands in for systemd's NOTIFY_SOCKET.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "daemon_monitor.h"
#include "nyx_host_monitor.h"
#include "tests/support/TestSupport.h"

namespace {

class NotifySocket {
 public:
  NotifySocket() : path_(dir_.path() + "/notify") {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot bind " + path_);
    }
    env_ = std::make_unique<nyxtest::ScopedEnv>("NOTIFY_SOCKET", path_);
  }
  ~NotifySocket() { close(fd_); }

  // The next datagram, or nullopt when none arrives within a second.
  std::optional<std::string> next() {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, 1000) != 1) {
      return std::nullopt;
    }
    char buffer[4096];
    const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
    return got < 0 ? std::nullopt : std::optional<std::string>(std::string(buffer, got));
  }
  bool empty() {
    pollfd ready{fd_, POLLIN, 0};
    return poll(&ready, 1, 0) == 0;
  }

 private:
  nyxtest::TempDir dir_;
  std::string path_;
  int fd_ = -1;
  std::unique_ptr<nyxtest::ScopedEnv> env_;
};

TEST(DaemonMonitorTest, PublishesCountAndReadyOnceStartUpEnds) {
  NotifySocket notify;
  initialize("cobalt.device.messaging", 60);
  EXPECT_EQ(nyx_host_monitor_activity_count(), 1);
  incrementProcessActivity();  // a task created during start-up
  decrementProcessActivity();
  decrementProcessActivity();  // start-up over
  EXPECT_EQ(nyx_host_monitor_activity_count(), 0);
  incrementProcessActivity();  // later tasks never repeat READY
  decrementProcessActivity();

  const std::vector<std::string> expected = {
      "STATUS=activities: 1",          "STATUS=activities: 2", "STATUS=activities: 1",
      "READY=1\nSTATUS=activities: 0", "STATUS=activities: 1", "STATUS=activities: 0",
  };
  for (const auto& message : expected) {
    EXPECT_EQ(notify.next(), message);
  }
  EXPECT_TRUE(notify.empty());
}

TEST(DaemonMonitorTest, CountsWithoutNotifySocket) {
  nyxtest::ScopedEnv noSocket("NOTIFY_SOCKET", std::nullopt);
  EXPECT_EQ(initialize("d", 60), 0);
  EXPECT_EQ(incrementProcessActivity(), 0);
  EXPECT_EQ(nyx_host_monitor_activity_count(), 2);
  EXPECT_EQ(decrementProcessActivity(), 0);
  EXPECT_EQ(nyx_host_monitor_activity_count(), 1);
}

}  // namespace
