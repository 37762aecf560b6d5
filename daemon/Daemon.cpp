#include "daemon/Daemon.h"

#include <curl/curl.h>
#include <glib.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <openssl/crypto.h>
#include <syslog.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "corvidutils.h"
#include "daemon/BusEvents.h"
#include "daemon/TaskQueue.h"
#include "daemon/common/HbusHandleProvider.h"
#include "daemon/common/Logging.h"
#include "daemon/common/RootedPath.h"
#include "daemon/common/Termination.h"
#include "daemon_monitor.h"
#include "hbus.h"

namespace {

constexpr char kMain[] = "Main";
constexpr char kLockFile[] = "/var/run/nyx.pid";
constexpr int kDaemonMonitorInterval = 60;
constexpr gint64 kTaskWaitMicroseconds = 15000000;

void handleTermination(int) { terminationRequested.store(true); }

// What an exception that nothing catches does: the design lets it end the
// process (a supervisor restarts the daemon), and this puts its text into the
// log first, where a field engineer looks.
[[noreturn]] void logUncaughtExceptionAndAbort() {
  if (std::exception_ptr current = std::current_exception()) {
    try {
      std::rethrow_exception(current);
    } catch (const std::exception& error) {
      logError(kMain, "Uncaught exception, terminating: %s", error.what());
    } catch (...) {
      logError(kMain, "Uncaught exception, terminating: unknown exception type");
    }
  } else {
    logError(kMain, "Terminating without an exception");
  }
  std::abort();
}

// After a burst of work (a storm of push triggers queues a task and a
// handler for each), the heap holds freed memory that malloc keeps for
// itself. A device has little to spare: once the queue is empty, give it back
// to the system. Only glibc has malloc_trim; elsewhere the heap stays as is.
void returnFreedMemoryWhenIdle() {
#ifdef __GLIBC__
  if (taskQueue.empty()) {
    malloc_trim(0);
  }
#endif
}

void runWorkerLoop() {
  while (!terminationRequested.load()) {
    std::unique_ptr<Task> task = taskQueue.pop(kTaskWaitMicroseconds);
    if (!task) {
      continue;
    }
    logInfo(kMain, "Processing task.");
    // A signal that came while the loop waited is forgotten once a task
    // arrives; one that comes while the task runs ends the loop after it
    // (and cuts short any retry wait of the task, see HttpClient).
    terminationRequested.store(false);
    task->run();
    logInfo(kMain, "Waiting for tasks.");
    task.reset();
    returnFreedMemoryWhenIdle();
  }
}

}  // namespace

void initializeLogger() {
  Logger* logger = new TesselLogger;
  openlog("NYX", LOG_PID | LOG_CONS, LOG_LOCAL0);
  setLogger(logger);
}

int runDaemon() {
  std::set_terminate(logUncaughtExceptionAndAbort);
#ifdef __GLIBC__
  // One heap for all threads. The listener thread builds tasks that the
  // worker thread frees; with an arena per thread that memory is spread over
  // two heaps, each holding on to its own free space, for no gain in a
  // daemon that does one thing at a time. Set before any thread exists.
  mallopt(M_ARENA_MAX, 1);
#endif
  // One log line per write, also into a pipe or the journal.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  initializeLogger();
  // libcurl's global state must be set up before a second thread exists.
  curl_global_init(CURL_GLOBAL_DEFAULT);

  const std::string lockFile = rootedPath(kLockFile);
  const int lock = corvid_daemon_checksingleton(lockFile.c_str());
  if (lock < 0) {
    logWarn(kMain, "NYX Daemon is already running.");
    return -1;
  }
  signal(SIGTERM, handleTermination);
  initialize(kCobaltDeviceMessaging, kDaemonMonitorInterval);

  HbusHandleStruct* handle = HbusHandleProvider::getHandle(kCobaltDeviceMessaging);
  registerBusProperties(handle);
  logInfo(kMain, "Starting the event listener thread.");
  HbusStartListener(handle);
  // Start-up counted as the daemon's first activity since initialize.
  decrementProcessActivity();

  logInfo(kMain, "Waiting for tasks.");
  runWorkerLoop();

  logInfo(kMain, "Received termination signal.");
  // No callback may run from here on: it could queue a task after the queue
  // was emptied, or use what exit tears down.
  HbusHandleProvider::closeAll();
  // Tasks still queued are not run; destroying them closes what their
  // handlers hold open (the registration cache).
  taskQueue.clear();
  corvid_daemon_cleansingleton(lockFile.c_str(), lock);
  // A no-op with OpenSSL 3, which cleans up at exit; older device builds
  // need it.
  CRYPTO_cleanup_all_ex_data();
  return 0;
}
