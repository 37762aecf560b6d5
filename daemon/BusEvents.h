// The daemon's bus properties, the callbacks that receive their writes, and
// the gates that decide whether a write leads to work.
//
// Callbacks run on the bus listener thread. They never touch the network or
// the database: each either drops the event or builds one task, with a fresh
// handler for the customer active at that moment, and pushes it onto the task
// queue. The queue and the pending-nudge counter are all they share with the
// worker thread.
#ifndef NYX_DAEMON_BUS_EVENTS_H
#define NYX_DAEMON_BUS_EVENTS_H

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "hbus.h"

// The queue of Task pointers from the listener thread to the worker loop.
// Ownership of a pushed task passes to the queue and then to the loop.
extern std::shared_ptr<GAsyncQueue> taskQueue;

// The number of NudgeTask objects alive, queued or running. Changed and read
// only with sequentially consistent atomics, because tasks are made on the
// listener thread and destroyed on the main thread.
extern std::atomic<int32_t> pendingNudgeTasks;

// Registers the six event properties and then the two request properties of
// the daemon's service, logging "Registering event callbacks." and
// "Registering property callbacks." before each group. Throws
// std::runtime_error "<label>: Hbus failure: <status>" when a registration
// fails.
void registerBusProperties(HbusHandleStruct* handle);

// Returns when status is 0, else throws std::runtime_error
// "<label>: Hbus failure: <status as unsigned>".
void checkHbusStatus(const std::string& label, int status);

// The active customer's identifier from the device authentication library,
// or "" when nobody is signed in.
std::string getActiveCustomerId();

// The write handlers. They always return 0, also when they drop the event.
// They are noexcept: an exception (none is expected: building a task opens
// no file and reads no configuration) ends the process at once, with the
// error in the log, instead of unwinding through the bus library. A
// registration or unregistration request without a "sender" parameter is
// logged ("Ignoring NYX ... request without a sender.") and dropped.
int handleNudgeEvent(HbusHandleStruct* handle, const char* name, int value,
                     void* userData) noexcept;
int handleMissedNudgeEvent(HbusHandleStruct* handle, const char* name, int value,
                           void* userData) noexcept;
int handleConnectionEvent(HbusHandleStruct* handle, const char* name, const char* value,
                          void* userData) noexcept;
int handleFrameworkStarted(HbusHandleStruct* handle, const char* name, const char* value,
                           void* userData) noexcept;
int handleRegisterRequest(HbusHandleStruct* handle, const char* name, const char* value,
                          GHashTable* parameters, void* userData) noexcept;
int handleUnregisterRequest(HbusHandleStruct* handle, const char* name, const char* value,
                            GHashTable* parameters, void* userData) noexcept;

#endif  // NYX_DAEMON_BUS_EVENTS_H
