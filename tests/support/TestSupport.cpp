#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace nyxtest {

namespace {

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

void makeDirs(const std::string& path) {
  std::string partial;
  std::stringstream parts(path);
  std::string part;
  while (std::getline(parts, part, '/')) {
    partial += part + "/";
    if (!part.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
      throw std::runtime_error("mkdir " + partial + ": " + strerror(errno));
    }
  }
}

// The first line of a report by each sanitizer the build may use.
// UndefinedBehaviorSanitizer has no banner of its own; every finding is a
// "file:line:column: runtime error: ..." line.
const char* const kSanitizerReportMarks[] = {
    "ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
    "ERROR: ThreadSanitizer",  "runtime error: ",
};

bool isSanitizerReport(const std::string& line) {
  for (const char* mark : kSanitizerReportMarks) {
    if (line.find(mark) != std::string::npos) {
      return true;
    }
  }
  return false;
}

std::vector<std::string> splitWords(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  std::string word;
  while (in >> word) {
    words.push_back(word);
  }
  return words;
}

}  // namespace

std::string sourceDir() { return envOr("NYX_SOURCE_DIR", NYX_TEST_SOURCE_DIR); }
std::string binaryDir() { return envOr("NYX_BINARY_DIR", NYX_TEST_BINARY_DIR); }

bool waitUntil(const std::function<bool()>& condition, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return condition();
    }
    std::this_thread::sleep_for(milliseconds(5));
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
  out << content;
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
}

TempDir::TempDir() {
  std::string pattern = envOr("TMPDIR", "/tmp") + "/nyx-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
  }
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(const std::string& name, const std::optional<std::string>& value)
    : name_(name) {
  if (const char* old = std::getenv(name.c_str())) {
    previous_ = old;
  }
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (previous_) {
    setenv(name_.c_str(), previous_->c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

NyxRoot::NyxRoot() {
  makeDirs(file("var/run"));
  makeDirs(file("var/local"));
  makeDirs(file("etc/nyx-host/tls"));
  env_ = std::make_unique<ScopedEnv>("NYX_ROOT", path());
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

ChildProcess::ChildProcess(const Options& options) : echo_(options.echo) {
  std::vector<std::string> argv;
  if (options.projectBinary) {
    argv = splitWords(envOr("NYX_TEST_EMULATOR", ""));
  }
  argv.insert(argv.end(), options.argv.begin(), options.argv.end());

  std::map<std::string, std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) {
      env[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  for (const auto& added : options.env) {
    env[added.first] = added.second;
  }
  std::vector<std::string> envText;
  for (const auto& entry : env) {
    envText.push_back(entry.first + "=" + entry.second);
  }
  std::vector<char*> argvPointers;
  for (auto& word : argv) {
    argvPointers.push_back(const_cast<char*>(word.c_str()));
  }
  argvPointers.push_back(nullptr);
  std::vector<char*> envPointers;
  for (auto& entry : envText) {
    envPointers.push_back(const_cast<char*>(entry.c_str()));
  }
  envPointers.push_back(nullptr);

  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  }
  int inputFds[2] = {-1, -1};
  if (options.inputPipe) {
    // A child that exits early must not kill the test with SIGPIPE.
    ::signal(SIGPIPE, SIG_IGN);
  }
  if (options.inputPipe && pipe2(inputFds, O_CLOEXEC) != 0) {
    close(pipeFds[0]);
    close(pipeFds[1]);
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (options.inputPipe) {
    posix_spawn_file_actions_adddup2(&actions, inputFds[0], 0);
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  // A new process group, so that signals sent to the test (a Ctrl-C) do not
  // reach the child twice and the child can be told apart in ps.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  int error = posix_spawnp(&pid_, argvPointers[0], &actions, &attributes, argvPointers.data(),
                           envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(pipeFds[1]);
  if (options.inputPipe) {
    close(inputFds[0]);
    inputFd_ = inputFds[1];
  }
  if (error != 0) {
    close(pipeFds[0]);
    if (inputFd_ >= 0) {
      close(inputFd_);
    }
    pid_ = -1;
    throw std::runtime_error("cannot start " + argv[0] + ": " + strerror(error));
  }
  reader_ = std::thread(&ChildProcess::readOutput, this, pipeFds[0]);
}

ChildProcess::~ChildProcess() {
  if (inputFd_ >= 0) {
    close(inputFd_);
  }
  if (running()) {
    kill(pid_, SIGKILL);
    waitForExit(milliseconds(10000));
  }
  if (reader_.joinable()) {
    reader_.join();
  }
  for (const auto& line : lines_) {
    if (isSanitizerReport(line)) {
      ADD_FAILURE() << "sanitizer report from child " << pid_ << ":\n" << output();
      break;
    }
  }
}

void ChildProcess::readOutput(int fd) {
  std::string partial;
  char buffer[4096];
  for (;;) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      break;
    }
    partial.append(buffer, static_cast<size_t>(got));
    size_t newline;
    while ((newline = partial.find('\n')) != std::string::npos) {
      std::string line = partial.substr(0, newline);
      partial.erase(0, newline + 1);
      if (echo_) {
        std::cout << "  | " << line << std::endl;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
      changed_.notify_all();
    }
  }
  close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!partial.empty()) {
    lines_.push_back(partial);
  }
  outputClosed_ = true;
  changed_.notify_all();
}

std::vector<std::string> ChildProcess::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::string ChildProcess::output() const {
  std::string text;
  for (const auto& line : lines()) {
    text += line + "\n";
  }
  return text;
}

size_t ChildProcess::countLines(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t count = 0;
  for (const auto& line : lines_) {
    count += line.find(text) != std::string::npos ? 1 : 0;
  }
  return count;
}

bool ChildProcess::waitForLine(const std::string& text, milliseconds timeout, size_t count) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    size_t seen = 0;
    for (const auto& line : lines_) {
      seen += line.find(text) != std::string::npos ? 1 : 0;
    }
    return seen >= count;
  });
}

void ChildProcess::writeInput(const std::string& text) const {
  size_t written = 0;
  while (inputFd_ >= 0 && written < text.size()) {
    ssize_t done = write(inputFd_, text.data() + written, text.size() - written);
    if (done < 0 && errno == EINTR) {
      continue;
    }
    if (done <= 0) {
      throw std::runtime_error(std::string("write to child: ") + strerror(errno));
    }
    written += static_cast<size_t>(done);
  }
}

void ChildProcess::closeInput() {
  if (inputFd_ >= 0) {
    close(inputFd_);
    inputFd_ = -1;
  }
}

bool ChildProcess::waitForOutputClosed(milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return outputClosed_; });
}

void ChildProcess::signal(int signalNumber) const {
  if (pid_ > 0) {
    kill(pid_, signalNumber);
  }
}

std::optional<int> ChildProcess::waitForExit(milliseconds timeout) {
  if (exitStatus_ || pid_ <= 0) {
    return exitStatus_;
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      return exitStatus_;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
}

bool ChildProcess::running() {
  if (exitStatus_ || pid_ <= 0) {
    return false;
  }
  return !waitForExit(milliseconds(0));
}

PrivateBus::PrivateBus() {
  busEnv_ = std::make_unique<ScopedEnv>("HBUS_BUS", std::nullopt);
  // dbus-daemon runs under a shell that holds the read end of a pipe whose
  // only writer is this process. However this process ends, the kernel
  // closes the writer, the shell's read returns and it stops the daemon; a
  // test aborted by a sanitizer leaves no bus behind.
  ChildProcess::Options options;
  options.argv = {"/bin/sh",
                  "-c",
                  "dbus-daemon \"$@\" </dev/null & read -r line; kill $!; wait $!",
                  "nyx-private-bus",
                  "--session",
                  "--nofork",
                  "--print-address=1",
                  "--address=unix:tmpdir=" + envOr("TMPDIR", "/tmp")};
  options.inputPipe = true;
  daemon_ = std::make_unique<ChildProcess>(options);
  if (!daemon_->waitForLine("unix:", milliseconds(10000))) {
    throw std::runtime_error("dbus-daemon did not start: " + daemon_->output());
  }
  for (const auto& line : daemon_->lines()) {
    if (line.rfind("unix:", 0) == 0) {
      address_ = line;
      break;
    }
  }
  addressEnv_ = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", address_);
}

PrivateBus::~PrivateBus() {
  addressEnv_.reset();
  daemon_->closeInput();
  daemon_->waitForExit(milliseconds(5000));
}

class LogCapture::Recorder : public Logger {
 public:
  using Store = std::pair<std::mutex, std::vector<std::string>>;
  explicit Recorder(std::shared_ptr<Store> store) : store_(std::move(store)) {}
  void debug(const char* component, const char* message) override {
    add("DEBUG", component, message);
  }
  void error(const char* component, const char* message) override {
    add("ERROR", component, message);
  }
  void info(const char* component, const char* message) override {
    add("INFO", component, message);
  }
  void warn(const char* component, const char* message) override {
    add("WARN", component, message);
  }

 private:
  void add(const char* level, const char* component, const char* message) {
    std::lock_guard<std::mutex> lock(store_->first);
    store_->second.push_back(std::string(level) + " " + component + ": " + message);
  }
  std::shared_ptr<Store> store_;
};

LogCapture::LogCapture() : store_(std::make_shared<Recorder::Store>()) {
  setLogger(new Recorder(store_));
}

LogCapture::~LogCapture() { setLogger(new DefaultLogger); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(store_->first);
  return store_->second;
}

bool LogCapture::contains(const std::string& line) const {
  for (const auto& seen : lines()) {
    if (seen == line) {
      return true;
    }
  }
  return false;
}

size_t LogCapture::count(const std::string& text) const {
  size_t count = 0;
  for (const auto& seen : lines()) {
    count += seen.find(text) != std::string::npos ? 1 : 0;
  }
  return count;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(store_->first);
  store_->second.clear();
}

}  // namespace nyxtest
