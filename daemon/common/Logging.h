// The process-wide logger and its four formatting front ends.
//
// Every component logs through logInfo/logWarn/logError (logDebug exists but
// the daemon does not use it) with its own tag. Until start-up installs the
// syslog logger, lines go to standard output only. The front ends are called
// from the worker and the bus listener threads; the logger is replaced only
// during single-threaded start-up, so they read it without a lock.
#ifndef NYX_DAEMON_COMMON_LOGGING_H
#define NYX_DAEMON_COMMON_LOGGING_H

#define NYX_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))

class Logger {
 public:
  virtual ~Logger();
  virtual void debug(const char* component, const char* message) = 0;
  virtual void error(const char* component, const char* message) = 0;
  virtual void info(const char* component, const char* message) = 0;
  virtual void warn(const char* component, const char* message) = 0;
};

// Writes "LEVEL: component: message" lines to standard output; the logger of
// a process that has not installed another one.
class DefaultLogger : public Logger {
 public:
  void debug(const char* component, const char* message) override;
  void error(const char* component, const char* message) override;
  void info(const char* component, const char* message) override;
  void warn(const char* component, const char* message) override;
};

// Writes each line to syslog ("L component: message" with the level's
// priority) and then to standard output with a line end. It never opens or
// closes syslog; start-up does that once. The syslog function can be replaced
// so that tests can see what would reach syslog.
class TesselLogger : public Logger {
 public:
  using SyslogFunction = void (*)(int priority, const char* format, ...);
  explicit TesselLogger(SyslogFunction syslogFunction = nullptr);
  void debug(const char* component, const char* message) override;
  void error(const char* component, const char* message) override;
  void info(const char* component, const char* message) override;
  void warn(const char* component, const char* message) override;

 private:
  void write(int priority, const char* syslogFormat, const char* stdoutFormat,
             const char* component, const char* message);
  SyslogFunction syslog_;
};

// Takes ownership of a heap-allocated logger, makes it the process-wide
// logger and destroys the previous one. Call only while a single thread runs.
void setLogger(Logger* logger);

// Format at most 1023 characters into a stack buffer (longer messages are cut
// silently) and hand them to the current logger. They never throw.
void logDebug(const char* component, const char* format, ...) NYX_PRINTF_LIKE(2, 3);
void logError(const char* component, const char* format, ...) NYX_PRINTF_LIKE(2, 3);
void logInfo(const char* component, const char* format, ...) NYX_PRINTF_LIKE(2, 3);
void logWarn(const char* component, const char* format, ...) NYX_PRINTF_LIKE(2, 3);

#endif  // NYX_DAEMON_COMMON_LOGGING_H
