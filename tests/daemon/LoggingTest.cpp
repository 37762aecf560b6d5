#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "daemon/Logging.h"
#include "tests/support/TestSupport.h"

namespace {

struct SyslogCall {
  int priority;
  std::string text;
};
std::vector<SyslogCall> syslogCalls;

void recordSyslog(int priority, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslogCalls.push_back({priority, text});
}

using LogFunction = void (*)(const char*, const char*, ...);

struct LevelCase {
  LogFunction log;
  const char* defaultPrefix;
  int syslogPriority;
  const char* tesselPrefix;
};

const LevelCase kLevels[] = {
    {logDebug, "DEBUG: ", LOG_DEBUG, "D "},
    {logError, "ERROR: ", LOG_ERR, "E "},
    {logInfo, "INFO: ", LOG_INFO, "I "},
    {logWarn, "WARN: ", LOG_WARNING, "W "},
};

class LoggingTest : public ::testing::Test {
 protected:
  void TearDown() override { setLogger(new DefaultLogger); }
};

TEST_F(LoggingTest, DefaultLoggerWritesLevelComponentAndMessageToStandardOutput) {
  setLogger(new DefaultLogger);
  for (const auto& level : kLevels) {
    testing::internal::CaptureStdout();
    level.log("Main", "Processing task %d of %s.", 3, "five");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string(level.defaultPrefix) + "Main: Processing task 3 of five.\n");
  }
}

TEST_F(LoggingTest, TesselLoggerWritesToSyslogAndThenStandardOutput) {
  setLogger(new TesselLogger(recordSyslog));
  for (const auto& level : kLevels) {
    syslogCalls.clear();
    testing::internal::CaptureStdout();
    level.log("Main", "Processing task.");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string(level.tesselPrefix) + "Main: Processing task.\n");
    ASSERT_EQ(syslogCalls.size(), 1u);
    EXPECT_EQ(syslogCalls[0].priority, level.syslogPriority);
    EXPECT_EQ(syslogCalls[0].text, std::string(level.tesselPrefix) + "Main: Processing task.");
  }
}

TEST_F(LoggingTest, MessagesAreCutTo1023Characters) {
  struct Case {
    size_t length;
    size_t expected;
  };
  const Case cases[] = {{0, 0}, {1022, 1022}, {1023, 1023}, {1024, 1023}, {1500, 1023}};
  nyxtest::LogCapture capture;
  for (const auto& c : cases) {
    capture.clear();
    const std::string message(c.length, 'x');
    logWarn("HttpClient", "%s", message.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], "WARN HttpClient: " + message.substr(0, c.expected))
        << "message of " << c.length << " characters";
  }
}

TEST_F(LoggingTest, ComponentIsPassedUncutAndUnformatted) {
  nyxtest::LogCapture capture;
  const std::string component(1500, 'c');
  logInfo(component.c_str(), "%%d stays %s", "literal");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], "INFO " + component + ": %d stays literal");
}

TEST_F(LoggingTest, ReplacedLoggerIsDestroyed) {
  static int destroyed = 0;
  struct CountingLogger : DefaultLogger {
    ~CountingLogger() override { ++destroyed; }
  };
  setLogger(new CountingLogger);
  EXPECT_EQ(destroyed, 0);
  setLogger(new DefaultLogger);
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
