// Fixtures shared by the test suites: temporary device roots, child
// processes, a private D-Bus daemon, log capture and waiting with a deadline.
#ifndef NYX_TESTS_SUPPORT_TEST_SUPPORT_H
#define NYX_TESTS_SUPPORT_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "daemon/Logging.h"

namespace nyxtest {

using std::chrono::milliseconds;

// The source tree (NYX_SOURCE_DIR, set by CTest), for scripts and tools.
std::string sourceDir();
// The build tree (NYX_BINARY_DIR, set by CTest), for built programs.
std::string binaryDir();

// Polls condition every few milliseconds until it holds or the deadline
// passes; returns whether it held.
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

// Sets an environment variable (or unsets it, for nullopt) and restores the
// previous state on destruction.
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

// A prepared device root: var/run, var/local and etc/nyx-host/tls exist and
// NYX_ROOT points here while the object lives.
class NyxRoot {
 public:
  NyxRoot();
  const std::string& path() const { return dir_.path(); }
  // path() + "/" + relative.
  std::string file(const std::string& relative) const;
  // Writes a host platform file: etc/nyx-host/<name>.
  void writePlatformFile(const std::string& name, const std::string& content) const;
  // Adds key=value lines to etc/nyx-host/dynconfig.
  void setConfig(const std::map<std::string, std::string>& values) const;

 private:
  TempDir dir_;
  std::unique_ptr<ScopedEnv> env_;
};

// A child process started with posix_spawn. Standard output and standard
// error are collected line by line by a reader thread. The destructor kills
// the process (SIGKILL) if it still runs and reaps it, and fails the running
// test (non-fatally) when the output holds a sanitizer's report: a sanitized
// nyxd or hbus reports on its own standard error, which only this object
// sees, and a report after the test's last check would otherwise be lost.
class ChildProcess {
 public:
  struct Options {
    std::vector<std::string> argv;
    // Added to (or replacing entries of) the test's own environment.
    std::vector<std::pair<std::string, std::string>> env;
    // Prefix argv with NYX_TEST_EMULATOR, for programs built by the project.
    bool projectBinary = false;
    // Echo each line to the test's standard output as it arrives.
    bool echo = false;
    // Give the child a pipe as standard input (see writeInput); otherwise it
    // reads /dev/null.
    bool inputPipe = false;
  };

  explicit ChildProcess(const Options& options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::vector<std::string> lines() const;
  std::string output() const;
  // Lines containing the text.
  size_t countLines(const std::string& text) const;
  // Waits until at least count lines contain the text.
  bool waitForLine(const std::string& text, milliseconds timeout, size_t count = 1) const;
  // Writes to the child's standard input (inputPipe must be set).
  void writeInput(const std::string& text) const;
  // Closes the child's standard input pipe, so that it reads end of file.
  void closeInput();
  void signal(int signalNumber) const;
  // The exit status (0-255) or, for a process ended by a signal, minus the
  // signal number; nullopt when it did not exit in time.
  std::optional<int> waitForExit(milliseconds timeout);
  bool running();
  // Waits until the child's output pipe is closed (every line collected).
  bool waitForOutputClosed(milliseconds timeout) const;

 private:
  void readOutput(int fd);

  pid_t pid_ = -1;
  int inputFd_ = -1;
  std::optional<int> exitStatus_;
  bool echo_ = false;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool outputClosed_ = false;
  std::thread reader_;
};

// A private dbus-daemon for one test binary (or one test). While it lives,
// DBUS_SESSION_BUS_ADDRESS points at it and HBUS_BUS is unset. The daemon
// also stops when the test process dies without running this destructor (a
// sanitizer's abort, a crash, CTest's time-out kill).
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  const std::string& address() const { return address_; }

 private:
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
  std::unique_ptr<ScopedEnv> addressEnv_;
  std::unique_ptr<ScopedEnv> busEnv_;
};

// Installs a logger that records every line, and the plain standard-output
// logger again on destruction. Lines are kept as "LEVEL component: message"
// with LEVEL one of DEBUG, ERROR, INFO, WARN.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const;
  bool contains(const std::string& line) const;
  // Lines that contain the text.
  size_t count(const std::string& text) const;
  void clear();

 private:
  class Recorder;
  std::shared_ptr<std::pair<std::mutex, std::vector<std::string>>> store_;
};

}  // namespace nyxtest

#endif  // NYX_TESTS_SUPPORT_TEST_SUPPORT_H
