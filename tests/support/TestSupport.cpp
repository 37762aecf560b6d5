#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace nyxtest {

namespace {

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

std::runtime_error systemError(const std::string& what, int error = errno) {
  return std::runtime_error(what + ": " + strerror(error));
}

// UndefinedBehaviorSanitizer has no banner; each finding is a "runtime error: " line.
bool isSanitizerReport(const std::string& line) {
  static const std::regex report(
      "ERROR: (Address|Leak|Thread)Sanitizer|WARNING: ThreadSanitizer|runtime error: ");
  return std::regex_search(line, report);
}

size_t countContaining(const std::vector<std::string>& lines, const std::string& text) {
  return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

}  // namespace

std::string sourceDir() { return envOr("NYX_SOURCE_DIR", NYX_TEST_SOURCE_DIR); }
std::string binaryDir() { return envOr("NYX_BINARY_DIR", NYX_TEST_BINARY_DIR); }

bool waitUntil(const std::function<bool()>& condition, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (; !condition(); std::this_thread::sleep_for(milliseconds(5))) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return condition();
    }
  }
  return true;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + path);
  }
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content)) {
    throw std::runtime_error("cannot write " + path);
  }
}

TempDir::TempDir() {
  std::string pattern = envOr("TMPDIR", "/tmp") + "/nyx-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw systemError("mkdtemp");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

static void setEnv(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value)
    : name_(name) {
  if (const char* old = std::getenv(name.c_str())) {
    previous_ = old;
  }
  setEnv(name, value);
}

ScopedEnv::~ScopedEnv() { setEnv(name_, previous_); }

NyxRoot::NyxRoot() : env_("NYX_ROOT", dir_.path()) {
  for (const char* dir : {"var/run", "var/local", "etc/nyx-host/tls"}) {
    std::filesystem::create_directories(file(dir));
  }
}

std::string NyxRoot::file(const std::string& relative) const { return path() + "/" + relative; }

void NyxRoot::writePlatformFile(const std::string& name, const std::string& content) const {
  writeFile(file("etc/nyx-host/" + name), content);
}

void NyxRoot::setConfig(const std::map<std::string, std::string>& values) const {
  std::ofstream out(file("etc/nyx-host/dynconfig"), std::ios::app);
  for (const auto& entry : values) {
    out << entry.first << "=" << entry.second << "\n";
  }
}

std::vector<std::string> LineRecord::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

size_t LineRecord::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return countContaining(lines_, text);
}

void LineRecord::add(std::string line) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(std::move(line));
  changed_.notify_all();
}

ChildProcess::ChildProcess(const Options& options) {
  std::istringstream emulator(options.projectBinary ? envOr("NYX_TEST_EMULATOR", "") : "");
  std::vector<std::string> argv(std::istream_iterator<std::string>(emulator), {});
  argv.insert(argv.end(), options.argv.begin(), options.argv.end());
  std::vector<const char*> argvPointers(argv.size() + 1, nullptr);  // ends with nullptr
  std::transform(argv.begin(), argv.end(), argvPointers.begin(),
                 [](const std::string& word) { return word.c_str(); });

  if (options.inputPipe) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that exits early must not kill the test
  }
  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) {
    throw systemError("pipe");
  }
  // Runs in the child before exec. A process group of its own, so that a
  // Ctrl-C on the test does not reach it twice; and SIGKILL when the test
  // process dies without running destructors (Ctrl-C, a time-out, a
  // sanitizer's abort), so that the child never outlives the test.
  const GSpawnChildSetupFunc ownGroupEndingWithTheTest = [](gpointer parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != *static_cast<pid_t*>(parent)) {
      _exit(127);
    }
  };
  pid_t parent = getpid();
  // Without inputPipe the child reads end of file at once, from /dev/null.
  const int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                    (options.inputPipe ? 0 : G_SPAWN_STDIN_FROM_DEV_NULL);
  GError* error = nullptr;
  int inputFd = -1;
  const bool started = g_spawn_async_with_pipes_and_fds(
      nullptr, argvPointers.data(), nullptr, GSpawnFlags(flags), ownGroupEndingWithTheTest, &parent,
      -1, output[1], output[1], nullptr, nullptr, 0, &pid_, options.inputPipe ? &inputFd : nullptr,
      nullptr, nullptr, &error);
  close(output[1]);
  if (!started) {
    close(output[0]);
    const std::runtime_error failure(error->message);
    g_error_free(error);
    throw failure;
  }
  input_ = inputFd >= 0 ? fdopen(inputFd, "w") : nullptr;
  setpgid(pid_, pid_);  // also here: the group must exist before any kill(-pid)
  reader_ = std::thread(&ChildProcess::readOutput, this, output[0]);
}

ChildProcess::~ChildProcess() {
  if (input_ != nullptr) {
    fclose(input_);
  }
  // The child and what it started in its group, so that nothing keeps the
  // output open or outlives the test.
  kill(-pid_, SIGKILL);
  waitForExit(milliseconds(10000));
  reader_.join();
  if (std::any_of(lines_.begin(), lines_.end(), isSanitizerReport)) {
    ADD_FAILURE() << "sanitizer report from child " << pid_ << ":\n" << output();
  }
}

void ChildProcess::readOutput(int fd) {
  FILE* output = fdopen(fd, "r");
  char* line = nullptr;
  size_t capacity = 0;
  for (ssize_t length; (length = getline(&line, &capacity, output)) > 0;) {
    add(std::string(line, static_cast<size_t>(length) - (line[length - 1] == '\n')));
  }
  free(line);
  fclose(output);
  std::lock_guard<std::mutex> lock(mutex_);
  outputClosed_ = true;
  changed_.notify_all();
}

std::string ChildProcess::output() const {
  std::string text;
  for (const auto& line : lines()) {
    text += line + "\n";
  }
  return text;
}

bool ChildProcess::waitForLine(const std::string& text, milliseconds timeout, size_t count) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return countContaining(lines_, text) >= count; });
}

bool ChildProcess::waitForOutputClosed(milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return outputClosed_; });
}

void ChildProcess::writeInput(const std::string& text) const {
  if (fwrite(text.data(), 1, text.size(), input_) != text.size() || fflush(input_) != 0) {
    throw systemError("write to child");
  }
}

std::optional<int> ChildProcess::waitForExit(milliseconds timeout) {
  waitUntil(
      [&] {
        int status = 0;
        if (!exitStatus_ && waitpid(pid_, &status, WNOHANG) == pid_) {
          exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        return exitStatus_.has_value();
      },
      timeout);
  return exitStatus_;
}

PrivateBus::PrivateBus() {
  daemon_ = std::make_unique<ChildProcess>(
      ChildProcess::Options{{"dbus-daemon", "--session", "--nofork", "--print-address=1",
                             "--address=unix:tmpdir=" + envOr("TMPDIR", "/tmp")}});
  if (!daemon_->waitForLine("unix:", milliseconds(10000))) {
    throw std::runtime_error("dbus-daemon did not start: " + daemon_->output());
  }
  std::string address;
  for (const auto& line : daemon_->lines()) {
    if (address.empty() && line.rfind("unix:", 0) == 0) {
      address = line;
    }
  }
  addressEnv_ = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", address);
}

PrivateBus::~PrivateBus() {
  addressEnv_.reset();
  stop();
}

void PrivateBus::stop() {
  // Once reaped, the pid may belong to another process: signal only a live bus.
  if (daemon_->running()) {
    daemon_->signal(SIGTERM);
  }
  daemon_->waitForExit(milliseconds(5000));
}

class LogCapture::Recorder : public Logger {
 public:
  // The capture outlives its recorder: setLogger destroys the recorder when
  // the capture puts the plain logger back.
  explicit Recorder(LogCapture* capture) : capture_(capture) {}
  void debug(const char* tag, const char* text) override { add("DEBUG ", tag, text); }
  void error(const char* tag, const char* text) override { add("ERROR ", tag, text); }
  void info(const char* tag, const char* text) override { add("INFO ", tag, text); }
  void warn(const char* tag, const char* text) override { add("WARN ", tag, text); }

 private:
  void add(const char* level, const char* tag, const char* text) {
    capture_->add(level + std::string(tag) + ": " + text);
  }
  LogCapture* capture_;
};

LogCapture::LogCapture() { setLogger(new Recorder(this)); }

LogCapture::~LogCapture() { setLogger(new DefaultLogger); }

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace nyxtest
