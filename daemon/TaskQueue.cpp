#include "daemon/TaskQueue.h"

// GLib synchronises its queues with its own locks, which ThreadSanitizer does
// not see (GLib is not built with it). Without these annotations every task
// that the listener thread builds and the worker thread runs would be
// reported as a race. In other builds they compile to nothing.
#if defined(__SANITIZE_THREAD__)
#define NYX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NYX_THREAD_SANITIZER 1
#endif
#endif

#ifdef NYX_THREAD_SANITIZER
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

TaskQueue taskQueue;

TaskQueue::TaskQueue() : queue_(g_async_queue_new()) {}

// Tasks still queued are left alone: at exit their destructors would run
// after the logger and the bus are gone. The daemon clears the queue itself
// while everything is still up.
TaskQueue::~TaskQueue() = default;

void TaskQueue::push(std::unique_ptr<Task> task) {
#ifdef NYX_THREAD_SANITIZER
  __tsan_release(queue_.get());
#endif
  g_async_queue_push(queue_.get(), task.release());
}

// A signal or a spurious wake-up can end GLib's wait early with nothing
// popped: the wait then goes on for the rest of its time, so that a signal
// while idle is honoured only if no task arrives within the wait.
std::unique_ptr<Task> TaskQueue::pop(gint64 timeoutMicroseconds) {
  const gint64 deadline = g_get_monotonic_time() + timeoutMicroseconds;
  for (gint64 now = g_get_monotonic_time(); now < deadline; now = g_get_monotonic_time()) {
    if (void* task =
            g_async_queue_timeout_pop(queue_.get(), static_cast<guint64>(deadline - now))) {
      return received(task);
    }
  }
  return nullptr;
}

std::unique_ptr<Task> TaskQueue::tryPop() { return received(g_async_queue_try_pop(queue_.get())); }

bool TaskQueue::empty() const { return g_async_queue_length(queue_.get()) <= 0; }

void TaskQueue::clear() {
  while (tryPop()) {
  }
}

std::unique_ptr<Task> TaskQueue::received(void* task) {
#ifdef NYX_THREAD_SANITIZER
  if (task != nullptr) {
    __tsan_acquire(queue_.get());
  }
#endif
  return std::unique_ptr<Task>(static_cast<Task*>(task));
}
