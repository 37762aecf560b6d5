// The queue of tasks from the bus listener thread to the worker loop.
//
// A GLib asynchronous queue of Task pointers. Ownership of a pushed task
// passes to the queue and then to whoever pops it.
#ifndef NYX_DAEMON_TASK_QUEUE_H
#define NYX_DAEMON_TASK_QUEUE_H

#include <glib.h>

#include <memory>

#include "daemon/Task.h"
#include "daemon/common/COwners.h"

class TaskQueue {
 public:
  TaskQueue();
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  // Hands the task to whichever thread pops it next.
  void push(std::unique_ptr<Task> task);

  // The oldest task, waiting up to `timeoutMicroseconds` for one; nullptr
  // when none came.
  std::unique_ptr<Task> pop(gint64 timeoutMicroseconds);

  // The oldest task if one is queued, else nullptr at once.
  std::unique_ptr<Task> tryPop();

  bool empty() const;

  // Destroys every queued task without running it.
  void clear();

 private:
  // Called after a task was taken from the queue: makes what the pushing
  // thread did before push visible to the checker of thread sanitizer builds.
  std::unique_ptr<Task> received(void* task);

  AsyncQueueOwner queue_;
};

// The daemon's one queue, filled by the bus callbacks and emptied by the
// worker loop.
extern TaskQueue taskQueue;

#endif  // NYX_DAEMON_TASK_QUEUE_H
