// The single-instance lock between processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "corvidutils.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

// Another process that holds an flock(2) lock on path until it is killed.
std::unique_ptr<ChildProcess> holdLock(const std::string& path) {
  ChildProcess::Options options;
  options.argv = {"python3", "-c",
                  "import fcntl, sys, time\n"
                  "f = open(sys.argv[1], 'a')\n"
                  "fcntl.flock(f, fcntl.LOCK_EX | fcntl.LOCK_NB)\n"
                  "print('locked', flush=True)\n"
                  "time.sleep(60)\n",
                  path};
  auto child = std::make_unique<ChildProcess>(options);
  EXPECT_TRUE(child->waitForLine("locked", milliseconds(10000))) << child->output();
  return child;
}

struct LockCase {
  const char* what;
  const char* existing;  // content of a file left behind, nullptr: no file
  bool heldByAnother;
  bool expectLocked;
};

TEST(SingletonTest, LocksUnlessAnotherProcessHoldsTheLock) {
  const LockCase cases[] = {
      {"no file", nullptr, false, true},
      {"stale file of a dead process", "99999\n", false, true},
      {"held by another process", "", true, false},
  };
  for (const auto& row : cases) {
    nyxtest::TempDir dir;
    const std::string path = dir.path() + "/nyx.pid";
    if (row.existing != nullptr) {
      nyxtest::writeFile(path, row.existing);
    }
    std::unique_ptr<ChildProcess> holder;
    if (row.heldByAnother) {
      holder = holdLock(path);
    }
    const int token = corvid_daemon_checksingleton(path.c_str());
    EXPECT_EQ(token >= 0, row.expectLocked) << row.what;
    if (token >= 0) {
      EXPECT_EQ(nyxtest::readFile(path), std::to_string(getpid()) + "\n") << row.what;
      corvid_daemon_cleansingleton(path.c_str(), token);
      EXPECT_NE(access(path.c_str(), F_OK), 0) << row.what << ": file removed";
    }
  }
}

TEST(SingletonTest, LockIsFreedWhenItsHolderDiesAndByCleanSingleton) {
  nyxtest::TempDir dir;
  const std::string path = dir.path() + "/nyx.pid";
  auto holder = holdLock(path);
  EXPECT_LT(corvid_daemon_checksingleton(path.c_str()), 0);
  holder.reset();  // killed and reaped

  const int token = corvid_daemon_checksingleton(path.c_str());
  ASSERT_GE(token, 0);
  // Even this process cannot lock twice: the lock belongs to the open file.
  EXPECT_LT(corvid_daemon_checksingleton(path.c_str()), 0);
  corvid_daemon_cleansingleton(path.c_str(), token);
  const int again = corvid_daemon_checksingleton(path.c_str());
  EXPECT_GE(again, 0);
  corvid_daemon_cleansingleton(path.c_str(), again);
}

TEST(SingletonTest, UnopenableFileIsNegative) {
  EXPECT_LT(corvid_daemon_checksingleton("/nonexistent-dir/nyx.pid"), 0);
  EXPECT_LT(corvid_daemon_checksingleton(nullptr), 0);
}

}  // namespace
