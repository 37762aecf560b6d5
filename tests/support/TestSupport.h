// Fixtures shared by the test suites: temporary device roots, child
// processes, a private D-Bus daemon, log capture and waiting with a deadline.
#ifndef NYX_TESTS_SUPPORT_TEST_SUPPORT_H
#define NYX_TESTS_SUPPORT_TEST_SUPPORT_H

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/common/Logging.h"

namespace nyxtest {

using std::chrono::milliseconds;

// The source and build trees (NYX_SOURCE_DIR / NYX_BINARY_DIR, set by CTest).
std::string sourceDir();
std::string binaryDir();

// Polls condition until it holds or the deadline passes; returns whether it held.
bool waitUntil(const std::function<bool()>& condition, milliseconds timeout);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

// A fresh directory under TMPDIR, removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Sets (or, for nullopt, unsets) an environment variable until destruction.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const std::optional<std::string>& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// A device root with var/run, var/local and etc/nyx-host/tls; NYX_ROOT points
// here while the object lives.
class NyxRoot {
 public:
  NyxRoot();
  const std::string& path() const { return dir_.path(); }
  std::string file(const std::string& relative) const;
  // Writes etc/nyx-host/<name>.
  void writePlatformFile(const std::string& name, const std::string& content) const;
  // Appends key=value lines to etc/nyx-host/dynconfig.
  void setConfig(const std::map<std::string, std::string>& values) const;

 private:
  TempDir dir_;
  ScopedEnv env_;
};

// Lines of text that one thread adds while others read or wait for them.
// Not copyable (it holds a mutex), nor is what derives from it.
class LineRecord {
 public:
  std::vector<std::string> lines() const;
  // Lines containing the text.
  size_t count(const std::string& text) const;

 protected:
  void add(std::string line);
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> lines_;
};

// A child process whose standard output and error are collected line by line.
// The destructor kills (SIGKILL) it and what it started in its process group,
// reaps it, and fails the running test when the output holds a sanitizer's
// report, which only this object sees. The child gets SIGKILL when the thread
// that made it ends, so that a test that dies without its destructors leaves
// nothing running: construct it on the test's own thread.
class ChildProcess : public LineRecord {
 public:
  struct Options {
    std::vector<std::string> argv;
    // Prefix argv with NYX_TEST_EMULATOR, for programs built by the project.
    bool projectBinary = false;
    // Standard input is a pipe (see writeInput) instead of /dev/null.
    bool inputPipe = false;
  };

  explicit ChildProcess(const Options& options);
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  std::string output() const;
  bool waitForLine(const std::string& text, milliseconds timeout, size_t count = 1) const;
  void writeInput(const std::string& text) const;
  void signal(int signalNumber) const { kill(pid_, signalNumber); }
  // The exit status, or minus the signal that ended it; nullopt on time-out.
  std::optional<int> waitForExit(milliseconds timeout);
  bool running() { return !waitForExit(milliseconds(0)); }
  // Waits until every line of output has been collected.
  bool waitForOutputClosed(milliseconds timeout) const;

 private:
  void readOutput(int fd);

  pid_t pid_ = -1;
  FILE* input_ = nullptr;
  std::optional<int> exitStatus_;
  bool outputClosed_ = false;
  std::thread reader_;
};

// A private dbus-daemon: while it lives DBUS_SESSION_BUS_ADDRESS points at it
// and HBUS_BUS is unset. Like every ChildProcess it also stops when the test
// process dies without running this destructor (a sanitizer's abort, a
// crash, a time-out kill).
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  // Ends the dbus-daemon now, as a restart of the bus on a device would, and
  // waits for it to exit.
  void stop();

 private:
  ScopedEnv busEnv_{"HBUS_BUS", std::nullopt};
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ScopedEnv> addressEnv_;
};

// One private bus for every test of the binary:
//   ::testing::AddGlobalTestEnvironment(new nyxtest::PrivateBusEnvironment);
class PrivateBusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { bus_ = std::make_unique<PrivateBus>(); }
  void TearDown() override { bus_.reset(); }

 private:
  std::unique_ptr<PrivateBus> bus_;
};

// Records every log line as "LEVEL component: message" (LEVEL one of DEBUG,
// ERROR, INFO, WARN) and installs the plain logger again on destruction.
class LogCapture : public LineRecord {
 public:
  LogCapture();
  ~LogCapture();
  void clear();

 private:
  class Recorder;
};

}  // namespace nyxtest

#endif  // NYX_TESTS_SUPPORT_TEST_SUPPORT_H
