// Hand-over of an object between threads through a GLib queue.
//
// GLib synchronises its queues with its own locks, which ThreadSanitizer does
// not see (GLib is not built with it). Without these annotations every task
// that the listener thread builds and the worker thread runs would be
// reported as a race. In other builds they compile to nothing.
#ifndef NYX_DAEMON_HAND_OVER_H
#define NYX_DAEMON_HAND_OVER_H

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

// Called by the sending thread just before it hands objects over through the
// channel at `channel`.
inline void releaseToChannel([[maybe_unused]] void* channel) {
#ifdef NYX_THREAD_SANITIZER
  __tsan_release(channel);
#endif
}

// Called by the receiving thread just after it took an object from the
// channel at `channel`: everything the sender did before releaseToChannel is
// visible from here on.
inline void acquireFromChannel([[maybe_unused]] void* channel) {
#ifdef NYX_THREAD_SANITIZER
  __tsan_acquire(channel);
#endif
}

#endif  // NYX_DAEMON_HAND_OVER_H
