// nyx-bench-launch: starts a program and reports when it says it is ready.
//
//   nyx-bench-launch --ready TEXT --log FILE [--timeout-ms N] -- PROGRAM [ARG]...
//
// PROGRAM's standard output and standard error go to FILE (a regular file,
// so that a busy program never waits on a reader and nobody has to copy its
// output). FILE is watched with inotify until a line containing TEXT appears;
// then "ready PID NANOSECONDS" is printed, NANOSECONDS being the monotonic
// time from just before the fork to the moment the line was seen. The
// launcher then waits for PROGRAM and prints "exit STATUS" (minus the signal
// number for a program ended by a signal). Without TEXT within the time-out
// (default 10000 ms), or when PROGRAM ends first, it prints "failed REASON",
// kills PROGRAM and exits 1.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/BenchBus.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: nyx-bench-launch --ready TEXT --log FILE [--timeout-ms N] -- PROGRAM "
               "[ARG]...\n");
  return 2;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

}  // namespace

int main(int argc, char** argv) {
  std::string ready, logPath;
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
    } else {
      return usage();
    }
  }
  if (ready.empty() || logPath.empty() || i >= argc) {
    return usage();
  }
  std::vector<char*> command(argv + i, argv + argc);
  command.push_back(nullptr);

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
  const pid_t child = fork();
  if (child < 0) {
    std::perror("nyx-bench-launch: fork");
    return 1;
  }
  if (child == 0) {
    dup2(logFd, STDOUT_FILENO);
    dup2(logFd, STDERR_FILENO);
    execvp(command[0], command.data());
    std::perror("nyx-bench-launch: exec");
    _exit(127);
  }
  close(logFd);

  // Searches what the program wrote so far; the tail of the text already
  // searched is kept so that a line split across two writes is still found.
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
    struct pollfd watch {
      watchFd, POLLIN, 0
    };
    poll(&watch, 1, static_cast<int>(std::min<long long>(left / 1000000 + 1, 50)));
    char events[4096];
    while (read(watchFd, events, sizeof events) > 0) {
    }
  }
  std::printf("ready %d %lld\n", static_cast<int>(child), readyAt - start);
  std::fflush(stdout);
  close(watchFd);
  close(readFd);

  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
  }
  std::printf("exit %d\n", exitStatus(status));
  return 0;
}
