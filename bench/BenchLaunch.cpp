// nyx-bench-launch: starts a program as nyxd's systemd unit starts it and
// reports when it is ready and each time it is idle again.
//
//   nyx-bench-launch --log FILE [--timeout-ms N] [--syslog-sink DIR] -- PROGRAM [ARG]...
//
// As under the unit (StandardOutput=null, Type=notify), PROGRAM's standard
// output goes to /dev/null and its readiness comes over the notification
// protocol: the launcher binds a datagram socket at FILE.notify and names it
// in NOTIFY_SOCKET. PROGRAM's standard error goes to FILE, so that a program
// that fails leaves its reason there.
//
// On "READY=1" the launcher prints "ready PID NANOSECONDS", NANOSECONDS being
// the monotonic time from just before the fork to the moment the message
// arrived; after that, "idle" for every "STATUS=activities: 0", which nyxd
// and the floors send when their last task has ended. When PROGRAM ends it
// prints "syslog LINES" and "exit STATUS" (minus the signal number for a
// program ended by a signal). Without READY=1 within the time-out (default
// 10000 ms), or when PROGRAM ends first, it prints "failed REASON", kills
// PROGRAM and exits 1.
//
// --syslog-sink gives PROGRAM a syslog that takes its lines and drops them,
// as a device's syslog daemon takes them. A machine without a syslog daemon
// has no /dev/log, and glibc's syslog then writes every line of a LOG_CONS
// program to the console, which on a virtual machine is a slow serial line:
// a measurement of the console, not of the program. The launcher moves
// itself into a private mount namespace, puts a tmpfs over /dev whose
// entries link to the real ones (bind-mounted under DIR), and serves
// /dev/log there itself. Nothing outside the namespace sees a change. All of
// this happens before the clock starts. The last lines received are appended
// to FILE when PROGRAM ends, for a look at what it logged.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
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
#include <deque>
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
               "usage: nyx-bench-launch --log FILE [--timeout-ms N] [--syslog-sink DIR] "
               "-- PROGRAM [ARG]...\n");
  return 2;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

void check(bool ok, const std::string& what) {
  if (!ok) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
  }
}

// A bound, non-blocking datagram socket at path.
int boundDatagramSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  check(fd >= 0, "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  check(path.size() < sizeof address.sun_path, "socket path " + path);
  std::strcpy(address.sun_path, path.c_str());
  unlink(path.c_str());
  check(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind " + path);
  return fd;
}

// Returns the socket at /dev/log of a private mount namespace; the real /dev
// is reachable under dir/dev.
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
  const int sink = boundDatagramSocket("/dev/log");
  chmod("/dev/log", 0666);
  return sink;
}

// Takes every waiting syslog line; keeps the last few for the log file.
struct SyslogSink {
  int fd = -1;
  unsigned long long lines = 0;
  std::deque<std::string> last;

  void drain() {
    char buffer[2048];
    ssize_t got;
    while (fd >= 0 && (got = recv(fd, buffer, sizeof buffer, 0)) >= 0) {
      ++lines;
      last.emplace_back(buffer, static_cast<size_t>(got));
      if (last.size() > 20) {
        last.pop_front();
      }
    }
  }
};

// Reads every waiting notification; returns how many said READY=1 and how
// many said the activity count is 0.
void readNotifications(int fd, int* ready, int* idle) {
  char buffer[1024];
  ssize_t got;
  while ((got = recv(fd, buffer, sizeof buffer, 0)) >= 0) {
    // One assignment per line; READY=1 may come with a status.
    const std::string message(buffer, static_cast<size_t>(got));
    size_t begin = 0;
    while (begin < message.size()) {
      const size_t end = std::min(message.find('\n', begin), message.size());
      const std::string line = message.substr(begin, end - begin);
      if (line == "READY=1") {
        ++*ready;
      } else if (line == "STATUS=activities: 0") {
        ++*idle;
      }
      begin = end + 1;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string logPath, sinkDir;
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
    if (arg == "--log") {
      logPath = argv[++i];
    } else if (arg == "--timeout-ms") {
      timeoutMs = std::atol(argv[++i]);
    } else if (arg == "--syslog-sink") {
      sinkDir = argv[++i];
    } else {
      return usage();
    }
  }
  if (logPath.empty() || i >= argc) {
    return usage();
  }
  std::vector<char*> command(argv + i, argv + argc);
  command.push_back(nullptr);

  SyslogSink sink;
  int notify = -1;
  const std::string notifyPath = logPath + ".notify";
  try {
    if (!sinkDir.empty()) {
      sink.fd = privateSyslog(sinkDir);
    }
    notify = boundDatagramSocket(notifyPath);
  } catch (const std::exception& e) {
    std::printf("failed %s\n", e.what());
    return 1;
  }
  const int logFd =
      open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  const int nullFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (logFd < 0 || nullFd < 0) {
    std::perror("nyx-bench-launch: log file");
    return 1;
  }
  setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);

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
    dup2(nullFd, STDOUT_FILENO);
    dup2(logFd, STDERR_FILENO);
    execvp(command[0], command.data());
    std::perror("nyx-bench-launch: exec");
    _exit(127);
  }
  gChild = child;
  struct sigaction passOn {};
  passOn.sa_handler = forward;
  sigaction(SIGTERM, &passOn, nullptr);
  sigaction(SIGINT, &passOn, nullptr);
  // glibc 2.36 declares pidfd_open without C linkage for C++; the system call
  // is used directly.
  const int exited = static_cast<int>(syscall(SYS_pidfd_open, child, 0));

  const long long deadline = start + timeoutMs * 1000000LL;
  bool ready = false;
  for (;;) {
    int readyCount = 0, idleCount = 0;
    readNotifications(notify, &readyCount, &idleCount);
    if (!ready && readyCount > 0) {
      ready = true;
      std::printf("ready %d %lld\n", static_cast<int>(child), nyxbench::monotonicNs() - start);
      // The status that comes with READY=1 is start-up's end, not a task's.
      idleCount = 0;
    }
    for (int k = 0; ready && k < idleCount; ++k) {
      std::printf("idle\n");
    }
    std::fflush(stdout);
    sink.drain();
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      sink.drain();
      unlink(notifyPath.c_str());
      for (const auto& line : sink.last) {
        dprintf(logFd, "syslog: %s\n", line.c_str());
      }
      if (!ready) {
        std::printf("failed program ended with status %d before it was ready\n",
                    exitStatus(status));
        return 1;
      }
      std::printf("syslog %llu\n", sink.lines);
      std::printf("exit %d\n", exitStatus(status));
      return 0;
    }
    int wait = -1;
    if (!ready) {
      const long long left = deadline - nyxbench::monotonicNs();
      if (left <= 0) {
        std::printf("failed not ready within %ld ms\n", timeoutMs);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return 1;
      }
      wait = static_cast<int>(left / 1000000 + 1);
    }
    // Without a pidfd, a short bound notices the program's end.
    if (exited < 0) {
      wait = wait < 0 ? 100 : std::min(wait, 100);
    }
    struct pollfd watch[3] = {{notify, POLLIN, 0}, {exited, POLLIN, 0}, {sink.fd, POLLIN, 0}};
    if (poll(watch, 3, wait) < 0 && errno != EINTR) {
      std::perror("nyx-bench-launch: poll");
      return 1;
    }
  }
}
