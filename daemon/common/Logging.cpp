#include "daemon/common/Logging.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace {

// Built on first use, so that code running during static initialisation of
// another file can already log.
std::shared_ptr<Logger>& processLogger() {
  static std::shared_ptr<Logger> logger = std::make_shared<DefaultLogger>();
  return logger;
}

constexpr size_t kMessageBufferSize = 1024;

enum class Level { kDebug, kError, kInfo, kWarn };

void logWithLevel(Level level, const char* component, const char* format, va_list args) {
  char message[kMessageBufferSize];
  vsnprintf(message, sizeof message, format, args);
  Logger& logger = *processLogger();
  switch (level) {
    case Level::kDebug:
      logger.debug(component, message);
      break;
    case Level::kError:
      logger.error(component, message);
      break;
    case Level::kInfo:
      logger.info(component, message);
      break;
    case Level::kWarn:
      logger.warn(component, message);
      break;
  }
}

}  // namespace

Logger::~Logger() = default;

void DefaultLogger::debug(const char* component, const char* message) {
  printf("DEBUG: %s: %s\n", component, message);
}
void DefaultLogger::error(const char* component, const char* message) {
  printf("ERROR: %s: %s\n", component, message);
}
void DefaultLogger::info(const char* component, const char* message) {
  printf("INFO: %s: %s\n", component, message);
}
void DefaultLogger::warn(const char* component, const char* message) {
  printf("WARN: %s: %s\n", component, message);
}

TesselLogger::TesselLogger(SyslogFunction syslogFunction)
    : syslog_(syslogFunction ? syslogFunction : ::syslog) {}

void TesselLogger::write(int priority, const char* syslogFormat, const char* stdoutFormat,
                         const char* component, const char* message) {
  syslog_(priority, syslogFormat, component, message);
  printf(stdoutFormat, component, message);
}

void TesselLogger::debug(const char* component, const char* message) {
  write(LOG_DEBUG, "D %s: %s", "D %s: %s\n", component, message);
}
void TesselLogger::error(const char* component, const char* message) {
  write(LOG_ERR, "E %s: %s", "E %s: %s\n", component, message);
}
void TesselLogger::info(const char* component, const char* message) {
  write(LOG_INFO, "I %s: %s", "I %s: %s\n", component, message);
}
void TesselLogger::warn(const char* component, const char* message) {
  write(LOG_WARNING, "W %s: %s", "W %s: %s\n", component, message);
}

void setLogger(Logger* logger) {
  // If the shared owner cannot be allocated, shared_ptr deletes the logger and
  // rethrows; the previous logger stays.
  std::shared_ptr<Logger> replacement(logger);
  processLogger().swap(replacement);
}

#define NYX_DEFINE_LOG_FRONT_END(function, level)                 \
  void function(const char* component, const char* format, ...) { \
    va_list args;                                                 \
    va_start(args, format);                                       \
    logWithLevel(level, component, format, args);                 \
    va_end(args);                                                 \
  }

NYX_DEFINE_LOG_FRONT_END(logDebug, Level::kDebug)
NYX_DEFINE_LOG_FRONT_END(logError, Level::kError)
NYX_DEFINE_LOG_FRONT_END(logInfo, Level::kInfo)
NYX_DEFINE_LOG_FRONT_END(logWarn, Level::kWarn)
