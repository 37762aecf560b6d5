/* Host-only additions to the property bus (hbus.h), for the hbus tool and the
 * tests. The daemon does not use them.
 *
 * Anonymous handles: HbusInitEx(NULL, &status) or HbusInitEx("", &status)
 * connects without owning a well-known name. Such a handle is known on the
 * bus only by its unique name; it can call other services, and it exports
 * /hbus like any other handle, so a service can answer it through the
 * "sender" it saw.
 */
#ifndef NYX_PLATFORM_HOST_HBUS_H
#define NYX_PLATFORM_HOST_HBUS_H

#include "hbus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The D-Bus unique name of the handle's connection (such as ":1.42"), owned
 * by the handle; NULL for a NULL handle. */
const char* nyx_host_hbus_unique_name(HbusHandleStruct* handle);

/* Inside a read or write handler: the unique name of the caller whose call
 * the handler is serving. NULL on any other thread or outside a handler. */
const char* nyx_host_hbus_current_sender(void);

#ifdef __cplusplus
}
#endif

#endif /* NYX_PLATFORM_HOST_HBUS_H */
