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
#include "daemon/HandOver.h"
#include "daemon/HbusHandleProvider.h"
#include "daemon/Logging.h"
#include "daemon/RootedPath.h"
#include "daemon/Task.h"
#include "daemon/Termination.h"
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
  if (g_async_queue_length(taskQueue.get()) <= 0) {
    malloc_trim(0);
  }
#endif
}

// Tasks still queued when the loop ends are not run; they are destroyed
// here, closing what their handlers hold open (the registration cache).
void discardQueuedTasks() {
  while (Task* task = static_cast<Task*>(g_async_queue_try_pop(taskQueue.get()))) {
    acquireFromChannel(taskQueue.get());
    delete task;
  }
}

// Waits up to the task wait time for a task; nullptr when none came. A
// signal can end GLib's wait early with nothing popped: the wait then goes
// on for the rest of its time, so that a signal while idle is honoured only
// if no task arrives within the wait.
Task* popTask() {
  const gint64 deadline = g_get_monotonic_time() + kTaskWaitMicroseconds;
  for (gint64 now = g_get_monotonic_time(); now < deadline; now = g_get_monotonic_time()) {
    if (void* task = g_async_queue_timeout_pop(taskQueue.get(), deadline - now)) {
      return static_cast<Task*>(task);
    }
  }
  return nullptr;
}

void runWorkerLoop() {
  while (!terminationRequested.load()) {
    std::shared_ptr<Task> task(popTask());
    if (!task) {
      continue;
    }
    acquireFromChannel(taskQueue.get());
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

  taskQueue = std::shared_ptr<GAsyncQueue>(g_async_queue_new(), g_async_queue_unref);
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
  discardQueuedTasks();
  corvid_daemon_cleansingleton(lockFile.c_str(), lock);
  // A no-op with OpenSSL 3, which cleans up at exit; older device builds
  // need it.
  CRYPTO_cleanup_all_ex_data();
  return 0;
}
