// The loggers' line formats and levels, and the base of the value classes.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "daemon/common/Logging.h"
#include "daemon/common/NamedStringEnum.h"
#include "tests/support/TestSupport.h"

namespace {

std::vector<std::pair<int, std::string>> syslogCalls;

void recordSyslog(int priority, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslogCalls.emplace_back(priority, text);
}

TEST(LoggingTest, EachLoggerWritesLevelComponentAndMessage) {
  const struct {
    void (*log)(const char*, const char*, ...);
    std::string defaultPrefix;
    int priority;
    std::string tesselPrefix;
  } levels[] = {{logDebug, "DEBUG: ", LOG_DEBUG, "D "},
                {logError, "ERROR: ", LOG_ERR, "E "},
                {logInfo, "INFO: ", LOG_INFO, "I "},
                {logWarn, "WARN: ", LOG_WARNING, "W "}};
  for (const auto& level : levels) {
    SCOPED_TRACE(level.defaultPrefix);
    setLogger(new DefaultLogger);
    testing::internal::CaptureStdout();
    level.log("Main", "Task %d of %s%%s.", 3, "five");  // %s reaches no printf twice
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              level.defaultPrefix + "Main: Task 3 of five%s.\n");

    setLogger(new TesselLogger(recordSyslog));
    syslogCalls.clear();
    testing::internal::CaptureStdout();
    level.log("Main", "Task %d%%s.", 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), level.tesselPrefix + "Main: Task 3%s.\n");
    EXPECT_EQ(syslogCalls,
              (decltype(syslogCalls){{level.priority, level.tesselPrefix + "Main: Task 3%s."}}));
  }
  setLogger(new DefaultLogger);
}

TEST(LoggingTest, MessagesAreCutTo1023CharactersAndTheComponentPassesAsIs) {
  const std::string component(1500, 'c');
  for (size_t length : {1023, 1024}) {
    nyxtest::LogCapture capture;
    logWarn(component.c_str(), "%%d %s", std::string(length - 3, 'x').c_str());
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"WARN " + component + ": %d " + std::string(1020, 'x')});
  }
}

struct Color : NamedStringEnum<Color> {
  explicit Color(const std::string& name) : NamedStringEnum(name) {}
};

TEST(NamedStringEnumTest, ValuesCompareAndCopyByTheirTextOnly) {
  const Color raw("Raw"), nyx("NYX"), raw2("Raw"), lower("raw");
  EXPECT_TRUE(raw == raw2);
  EXPECT_FALSE(raw != raw2);
  EXPECT_FALSE(raw == lower);  // no case folding
  EXPECT_TRUE(raw != lower);
  Color copy(nyx);
  NamedStringEnum<Color>& asBase = copy;
  asBase = raw;
  EXPECT_EQ(copy.name(), "Raw");
}

}  // namespace
