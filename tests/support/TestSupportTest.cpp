#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

// Runs the command to its end; the child's destructor looks at its output.
void run(const std::vector<std::string>& argv) {
  nyxtest::ChildProcess child({argv});
  child.waitForOutputClosed(nyxtest::milliseconds(10000));
}

TEST(ChildProcessTest, FailsTheTestWhenAndOnlyWhenAChildPrintsASanitizerReport) {
  const struct {
    const char* line;
    bool report;
  } cases[] = {
      {"==4242==ERROR: AddressSanitizer: heap-use-after-free on address 0x602000000010", true},
      {"==4242==ERROR: LeakSanitizer: detected memory leaks", true},
      {"WARNING: ThreadSanitizer: data race (pid=4242)", true},
      {"daemon/Main.cpp:42:7: runtime error: signed integer overflow", true},
      {"E Main: Uncaught exception, terminating: no key customer", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::vector<std::string> argv = {"/bin/sh", "-c", "printf '%s\\n' \"$1\" >&2", "-",
                                           c.line};
    if (c.report) {
      EXPECT_NONFATAL_FAILURE(run(argv), "sanitizer report from child");
    } else {
      run(argv);
    }
  }
}

}  // namespace
