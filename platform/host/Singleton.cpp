// The single-instance lock: flock(2) on the lock file, held through the
// returned descriptor. The kernel drops the lock when its holder exits, so a
// file left behind by a process that died never blocks a new instance.
//
// Paths arrive already rooted by the caller and are used as given.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "corvidutils.h"

int corvid_daemon_checksingleton(const char* lockFile) {
  if (lockFile == nullptr) {
    return -1;
  }
  const int fd = open(lockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    return -1;
  }
  int locked;
  do {
    locked = flock(fd, LOCK_EX | LOCK_NB);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) {
    close(fd);
    return -1;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 ||
      pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    close(fd);
    return -1;
  }
  return fd;
}

void corvid_daemon_cleansingleton(const char* lockFile, int token) {
  if (token < 0) {
    return;
  }
  // Unlinked while still locked, so a new instance cannot lock the old inode
  // in between and then lose its file.
  if (lockFile != nullptr) {
    unlink(lockFile);
  }
  close(token);
}
