// The daemon's handles on the property bus, one per service name, opened on
// first use and kept until shutdown closes them.
//
// Start-up asks for the handle of the daemon's own service first, on the main
// thread before the listener thread exists; afterwards both threads only read
// the table, so it needs no lock. Looking up a new name after start-up would.
#ifndef NYX_DAEMON_COMMON_HBUS_HANDLE_PROVIDER_H
#define NYX_DAEMON_COMMON_HBUS_HANDLE_PROVIDER_H

#include <string>

#include "hbus.h"

// The bus service the daemon publishes and sends from.
constexpr char kCobaltDeviceMessaging[] = "cobalt.device.messaging";

class HbusHandleProvider {
 public:
  virtual ~HbusHandleProvider();

  // Returns the handle of serviceName, opening it with HbusInitEx on the first
  // call; the handle stays owned by the table. Throws std::runtime_error
  // "Hbus Initialization failure: <status>" when opening fails. A failed
  // attempt is cached too: later calls return the handle that attempt gave
  // back (possibly null) without trying again, so a broken bus fails once,
  // loudly, instead of on every event.
  static HbusHandleStruct* getHandle(const std::string& serviceName);

  // Closes every handle, waiting for a listener callback in progress, and
  // forgets them; after it no bus callback runs. For shutdown, on the main
  // thread.
  static void closeAll();
};

#endif  // NYX_DAEMON_COMMON_HBUS_HANDLE_PROVIDER_H
