// The daemon's stop request: set by the SIGTERM handler, read by the worker
// loop between tasks and by the HTTP client's retry wait.
//
// The handler may run on any thread of the process (the kernel picks one
// that does not block the signal: the worker, the bus listener or a library's
// own thread), so the flag is a lock-free atomic, safe to store from a signal
// handler and visible to every thread at once.
#ifndef NYX_DAEMON_COMMON_TERMINATION_H
#define NYX_DAEMON_COMMON_TERMINATION_H

#include <atomic>

extern std::atomic<bool> terminationRequested;

static_assert(std::atomic<bool>::is_always_lock_free,
              "the stop request is stored from a signal handler");

#endif  // NYX_DAEMON_COMMON_TERMINATION_H
