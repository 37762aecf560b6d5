// nyx-bench-launch: starts a program and reports when it says it is ready.
//
//   nyx-bench-launch --ready TEXT --log FILE [--timeout-ms N] [--syslog-sink DIR]
//                    -- PROGRAM [ARG]...
//
// PROGRAM's standard output and standard error go to FILE (a regular file,
// so that a busy program never waits on a reader and nobody has to copy its
// output). FILE is watched with inotify until a line containing TEXT appears;
// then "ready PID NANOSECONDS" is printed, NANOSECONDS being the monotonic
// time from just before the fork to the moment the line was seen. The
// launcher then waits for PROGRAM and prints "syslog LINES" and "exit STATUS"
// (minus the signal number for a program ended by a signal). Without TEXT
// within the time-out (default 10000 ms), or when PROGRAM ends first, it
// prints "failed REASON", kills PROGRAM and exits 1.
//
// --syslog-sink gives PROGRAM a syslog that takes its lines and drops them,
// as a device's syslog daemon takes them. A machine without a syslog daemon
// has no /dev/log, and glibc's syslog then writes every line of a LOG_CONS
// program to the console, which on a virtual machine is a slow serial line:
// a measurement of the console, not of the program. The launcher moves
// itself into a private mount namespace, puts a tmpfs over /dev whose
// entries link to the real ones (bind-mounted under DIR), and serves
// /dev/log there itself. Nothing outside the namespace sees a change. All of
// this happens before the clock starts.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchBus.h"

namespace {

volatile sig_atomic_t gChild = 0;

// The launcher stands for its program: a stop request is passed on, and the
// launcher ends when the program has ended and been reaped.
void forward(int signalNumber) {
  if (gChild > 0) {
    kill(gChild, signalNumber);
  }
}

int usage() {
  std::fprintf(stderr,
               "usage: nyx-bench-launch --ready TEXT --log FILE [--timeout-ms N] "
               "[--syslog-sink DIR] -- PROGRAM [ARG]...\n");
  return 2;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

void check(bool ok, const std::string& what) {
  if (!ok) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
  }
}

// Returns the bound, non-blocking datagram socket at /dev/log of a private
// mount namespace; the real /dev is reachable under dir/dev.
int privateSyslog(const std::string& dir) {
  check(unshare(CLONE_NEWNS) == 0, "unshare");
  check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount private /");
  const std::string realDev = dir + "/dev";
  check(mkdir(realDev.c_str(), 0755) == 0 || errno == EEXIST, "mkdir " + realDev);
  check(mount("/dev", realDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind /dev");
  check(mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755") == 0, "tmpfs /dev");
  DIR* entries = opendir(realDev.c_str());
  check(entries != nullptr, "opendir " + realDev);
  while (const dirent* entry = readdir(entries)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name != "log") {
      check(symlink((realDev + "/" + name).c_str(), ("/dev/" + name).c_str()) == 0,
            "symlink /dev/" + name);
    }
  }
  closedir(entries);
  const int sink = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  check(sink >= 0, "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  check(bind(sink, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind /dev/log");
  chmod("/dev/log", 0666);
  return sink;
}

unsigned long long drain(int sink) {
  unsigned long long lines = 0;
  char buffer[2048];
  while (sink >= 0 && recv(sink, buffer, sizeof buffer, 0) >= 0) {
    ++lines;
  }
  return lines;
}

}  // namespace

int main(int argc, char** argv) {
  std::string ready, logPath, sinkDir;
  long timeoutMs = 10000;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (i + 1 >= argc) {
      return usage();
    }
    if (arg == "--ready") {
      ready = argv[++i];
    } else if (arg == "--log") {
      logPath = argv[++i];
    } else if (arg == "--timeout-ms") {
      timeoutMs = std::atol(argv[++i]);
    } else if (arg == "--syslog-sink") {
      sinkDir = argv[++i];
    } else {
      return usage();
    }
  }
  if (ready.empty() || logPath.empty() || i >= argc) {
    return usage();
  }
  std::vector<char*> command(argv + i, argv + argc);
  command.push_back(nullptr);

  int sink = -1;
  if (!sinkDir.empty()) {
    try {
      sink = privateSyslog(sinkDir);
    } catch (const std::exception& e) {
      std::printf("failed syslog sink: %s\n", e.what());
      return 1;
    }
  }
  const int logFd =
      open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  const int readFd = open(logPath.c_str(), O_RDONLY | O_CLOEXEC);
  const int watchFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (logFd < 0 || readFd < 0 || watchFd < 0 ||
      inotify_add_watch(watchFd, logPath.c_str(), IN_MODIFY) < 0) {
    std::perror("nyx-bench-launch: log file");
    return 1;
  }

  const long long start = nyxbench::monotonicNs();
  const pid_t launcher = getpid();
  const pid_t child = fork();
  if (child < 0) {
    std::perror("nyx-bench-launch: fork");
    return 1;
  }
  if (child == 0) {
    // The program ends with this launcher, also when it is killed outright.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != launcher) {
      _exit(127);
    }
    dup2(logFd, STDOUT_FILENO);
    dup2(logFd, STDERR_FILENO);
    execvp(command[0], command.data());
    std::perror("nyx-bench-launch: exec");
    _exit(127);
  }
  close(logFd);
  gChild = child;
  struct sigaction passOn {};
  passOn.sa_handler = forward;
  sigaction(SIGTERM, &passOn, nullptr);
  sigaction(SIGINT, &passOn, nullptr);

  // Searches what the program wrote so far; the tail of the text already
  // searched is kept so that a line split across two writes is still found.
  unsigned long long syslogLines = 0;
  std::string seen;
  long long readyAt = 0;
  const long long deadline = start + timeoutMs * 1000000LL;
  while (readyAt == 0) {
    char buffer[4096];
    ssize_t got;
    while ((got = read(readFd, buffer, sizeof buffer)) > 0) {
      seen.append(buffer, static_cast<size_t>(got));
    }
    if (seen.find(ready) != std::string::npos) {
      readyAt = nyxbench::monotonicNs();
      break;
    }
    if (seen.size() > ready.size()) {
      seen.erase(0, seen.size() - ready.size());
    }
    syslogLines += drain(sink);
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      std::printf("failed program ended with status %d before it was ready\n", exitStatus(status));
      return 1;
    }
    const long long left = deadline - nyxbench::monotonicNs();
    if (left <= 0) {
      std::printf("failed not ready within %ld ms\n", timeoutMs);
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
      return 1;
    }
    // A short poll bound also notices a program that ends without writing.
    struct pollfd watch[2] = {{watchFd, POLLIN, 0}, {sink, POLLIN, 0}};
    poll(watch, sink >= 0 ? 2 : 1, static_cast<int>(std::min<long long>(left / 1000000 + 1, 50)));
    char events[4096];
    while (read(watchFd, events, sizeof events) > 0) {
    }
  }
  std::printf("ready %d %lld\n", static_cast<int>(child), readyAt - start);
  std::fflush(stdout);
  close(watchFd);
  close(readFd);

  // glibc 2.36 declares pidfd_open without C linkage for C++; the system call
  // is used directly.
  const int exited = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  for (;;) {
    struct pollfd watch[2] = {{exited, POLLIN, 0}, {sink, POLLIN, 0}};
    if (poll(watch, sink >= 0 ? 2 : 1, exited >= 0 ? -1 : 100) < 0 && errno != EINTR) {
      break;
    }
    syslogLines += drain(sink);
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      std::printf("syslog %llu\n", syslogLines + drain(sink));
      std::printf("exit %d\n", exitStatus(status));
      return 0;
    }
  }
  std::perror("nyx-bench-launch: poll");
  return 1;
}
