// The daemon's process: start-up, the worker loop on the main thread, and
// shut-down after SIGTERM.
#ifndef NYX_DAEMON_DAEMON_H
#define NYX_DAEMON_DAEMON_H

// Runs the daemon until SIGTERM and returns the process's exit status: 0
// after a termination signal, -1 when another instance holds the lock. A
// failure to open the bus or register a property, or an exception that
// escapes a task, ends the process abnormally by design: a supervisor
// restarts it.
int runDaemon();

// Makes the syslog logger the process-wide logger ("NYX", LOG_LOCAL0).
void initializeLogger();

#endif  // NYX_DAEMON_DAEMON_H
