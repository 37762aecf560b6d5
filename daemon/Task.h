// A unit of work handed from the bus listener thread to the worker loop.
//
// Made by a bus callback on the listener thread, run once and destroyed on
// the main thread. Each live task counts as one activity of the daemon
// monitor, from its creation until its destruction, so the monitor sees the
// daemon busy while work is queued or running.
#ifndef NYX_DAEMON_TASK_H
#define NYX_DAEMON_TASK_H

class Task {
 public:
  Task();
  virtual ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  // Does the work. Must handle its own failures: nothing above it catches, so
  // an exception that escapes ends the process.
  virtual void run() = 0;
};

#endif  // NYX_DAEMON_TASK_H
