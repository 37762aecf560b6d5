/* The device's property bus (libhbus).
 *
 * A service is a named endpoint on the bus that publishes integer and string
 * properties. Other processes write those properties; each write runs the
 * property's write handler on the listener thread of the publishing process.
 * A process also reads and writes properties of other services
 * synchronously. Every operation returns a status, 0 for success.
 *
 * Statuses seen by the calling side (HbusGetIntProperty, HbusSetStringProperty
 * and friends): 0 success, 1 no answer within the call time-out or another
 * failure, 3 no such service, 8 no such property, any other number as the
 * called service answered it.
 */
#ifndef NYX_PLATFORM_HBUS_H
#define NYX_PLATFORM_HBUS_H

#include <glib.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct HbusHandleStruct HbusHandleStruct;

enum {
  HBUS_STATUS_OK = 0,
  HBUS_STATUS_FAILURE = 1,
  HBUS_STATUS_NO_SUCH_SERVICE = 3,
  HBUS_STATUS_NO_SUCH_PROPERTY = 8
};

/* Read handlers fill *value and return a status. A string read handler
 * returns a g_malloc'ed string that the bus library frees. */
typedef int (*HbusIntReadHandler)(HbusHandleStruct* handle, const char* property, int* value,
                                  void* userData);
typedef int (*HbusStringReadHandler)(HbusHandleStruct* handle, const char* property, char** value,
                                     void* userData);

/* Write handlers return the status the writer receives. */
typedef int (*HbusIntWriteHandler)(HbusHandleStruct* handle, const char* property, int value,
                                   void* userData);
typedef int (*HbusStringWriteHandler)(HbusHandleStruct* handle, const char* property,
                                      const char* value, void* userData);
/* parameters maps char* keys to char* values and is owned by the library;
 * the key "sender" names the bus service that wrote the property. */
typedef int (*HbusStringWriteHandlerNew)(HbusHandleStruct* handle, const char* property,
                                         const char* value, GHashTable* parameters, void* userData);

/* Connects to the bus and publishes serviceName. Always writes *status; the
 * returned handle may be NULL on failure and is released with HbusClose.
 *
 * Once the handle's listener runs, losing the connection to the bus (the bus
 * daemon stopped or restarted) must not go unnoticed: the library ends the
 * process with a non-zero exit status after logging that the bus connection
 * was lost (standard error and syslog). A process whose properties nobody
 * can reach any more would otherwise look alive to its supervisor, which
 * then never restarts it on the new bus. */
HbusHandleStruct* HbusInitEx(const char* serviceName, int* status);

/* Stops the handle's listener thread and releases the handle. A write or
 * read handler that is running when HbusClose is called finishes first:
 * HbusClose returns only after it has returned, and no handler of this
 * handle runs afterwards. The daemon's shut-down relies on this to tear
 * down what its handlers use. (Called from inside a handler, it does not
 * wait for that handler.) */
void HbusClose(HbusHandleStruct* handle);

int HbusRegisterIntProperty(HbusHandleStruct* handle, const char* property,
                            HbusIntReadHandler readHandler, HbusIntWriteHandler writeHandler,
                            void* userData);
int HbusRegisterStringProperty(HbusHandleStruct* handle, const char* property,
                               HbusStringReadHandler readHandler,
                               HbusStringWriteHandler writeHandler, void* userData);
int HbusRegisterStringPropertyNew(HbusHandleStruct* handle, const char* property,
                                  HbusStringReadHandler readHandler,
                                  HbusStringWriteHandlerNew writeHandler, void* userData);

/* Starts the listener thread; writes that arrived earlier wait for it. */
int HbusStartListener(HbusHandleStruct* handle);

int HbusGetIntProperty(HbusHandleStruct* handle, const char* service, const char* property,
                       int* value);
int HbusSetStringProperty(HbusHandleStruct* handle, const char* service, const char* property,
                          const char* value);

/* The remaining two are not used by the daemon; tools and simulators use
 * them. *value of HbusGetStringProperty is g_malloc'ed, released with g_free. */
int HbusSetIntProperty(HbusHandleStruct* handle, const char* service, const char* property,
                       int value);
int HbusGetStringProperty(HbusHandleStruct* handle, const char* service, const char* property,
                          char** value);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_HBUS_H */
