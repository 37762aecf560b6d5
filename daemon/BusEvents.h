// The daemon's bus properties, the callbacks that receive their writes, and
// the gates that decide whether a write leads to work.
//
// Callbacks run on the bus listener thread. They never touch the network or
// the database: each either drops the event or builds one task, with a fresh
// handler for the customer active at that moment, and pushes it onto the task
// queue (daemon/TaskQueue.h), which is all they share with the worker thread.
#ifndef NYX_DAEMON_BUS_EVENTS_H
#define NYX_DAEMON_BUS_EVENTS_H

#include <glib.h>

#include "hbus.h"

// Registers the six event properties and then the two request properties of
// the daemon's service, logging "Registering event callbacks." and
// "Registering property callbacks." before each group. Throws
// std::runtime_error "<label>: Hbus failure: <status>" when a registration
// fails.
void registerBusProperties(HbusHandleStruct* handle);

// The handlers of the two request properties, which push their tasks onto
// taskQueue; the event handlers are private to the registration. They always
// return 0, also when they drop the request. They are noexcept: an exception
// (none is expected: building a task opens no file and reads no
// configuration) ends the process at once, with the error in the log,
// instead of unwinding through the bus library. A request without a "sender"
// parameter is logged ("Ignoring NYX ... request without a sender.") and
// dropped.
int handleRegisterRequest(HbusHandleStruct* handle, const char* name, const char* value,
                          GHashTable* parameters, void* userData) noexcept;
int handleUnregisterRequest(HbusHandleStruct* handle, const char* name, const char* value,
                            GHashTable* parameters, void* userData) noexcept;

#endif  // NYX_DAEMON_BUS_EVENTS_H
