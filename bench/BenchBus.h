// What the benchmark programs share: the monotonic clock that every process
// of one measurement reads, the /hbus object of the property-bus contract,
// scoped owners for GLib objects and a checked form of GError-returning calls.
//
// Every program here is single-threaded apart from GDBus's own worker thread,
// and every time it reports is CLOCK_MONOTONIC in nanoseconds, so times taken
// by different processes of one run can be subtracted.
#ifndef NYX_BENCH_BENCH_BUS_H
#define NYX_BENCH_BENCH_BUS_H

#include <gio/gio.h>
#include <time.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace nyxbench {

inline long long monotonicNs() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// The interface every property-bus service exports on /hbus.
constexpr const char* kHbusObject = "/hbus";
constexpr const char* kHbusInterface = "hbus.Properties";
constexpr const char* kHbusIntrospection =
    "<node>"
    " <interface name='hbus.Properties'>"
    "  <method name='SetString'>"
    "   <arg type='s' name='property' direction='in'/>"
    "   <arg type='s' name='value' direction='in'/>"
    "  </method>"
    "  <method name='SetInt'>"
    "   <arg type='s' name='property' direction='in'/>"
    "   <arg type='i' name='value' direction='in'/>"
    "  </method>"
    "  <method name='GetString'>"
    "   <arg type='s' name='property' direction='in'/>"
    "   <arg type='s' name='value' direction='out'/>"
    "  </method>"
    "  <method name='GetInt'>"
    "   <arg type='s' name='property' direction='in'/>"
    "   <arg type='i' name='value' direction='out'/>"
    "  </method>"
    " </interface>"
    "</node>";

struct GObjectRelease {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectRelease>;

struct GVariantRelease {
  void operator()(GVariant* value) const { g_variant_unref(value); }
};
using GVariantPtr = std::unique_ptr<GVariant, GVariantRelease>;

struct GErrorRelease {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorRelease>;

// Throws std::runtime_error "operation: message" when error is set.
inline void checkGError(const char* operation, GError* error) {
  if (error != nullptr) {
    GErrorPtr owned(error);
    throw std::runtime_error(std::string(operation) + ": " + owned->message);
  }
}

// Connects to the session bus (DBUS_SESSION_BUS_ADDRESS). Throws when the
// bus cannot be reached.
inline GObjectPtr<GDBusConnection> connectBus() {
  GError* error = nullptr;
  GObjectPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error));
  checkGError("g_bus_get_sync", error);
  return connection;
}

// Owns name without queueing. Throws when the name is already owned. Export
// the objects first, so that no call finds the name without them.
inline void ownName(GDBusConnection* connection, const std::string& name) {
  GError* error = nullptr;
  // 4 is DBUS_NAME_FLAG_DO_NOT_QUEUE; the answer 1 means primary owner.
  GVariantPtr reply(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "RequestName", g_variant_new("(su)", name.c_str(), 4U), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
  checkGError("RequestName", error);
  guint32 answer = 0;
  g_variant_get(reply.get(), "(u)", &answer);
  if (answer != 1) {
    throw std::runtime_error("bus name " + name + " is already owned");
  }
}

// Exports /hbus on connection with the given method-call handler; returns
// the registration id. Throws when the object is already exported.
inline guint exportHbus(GDBusConnection* connection, const GDBusInterfaceVTable* vtable,
                        gpointer userData) {
  GError* error = nullptr;
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kHbusIntrospection, &error);
  checkGError("g_dbus_node_info_new_for_xml", error);
  std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo*)> owned(node, g_dbus_node_info_unref);
  const guint id = g_dbus_connection_register_object(connection, kHbusObject, node->interfaces[0],
                                                     vtable, userData, nullptr, &error);
  checkGError("g_dbus_connection_register_object", error);
  return id;
}

}  // namespace nyxbench

// Ends the main loop given as user data; the SIGTERM and SIGINT handler.
inline gboolean quitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

// The answer to a call about a property the service does not have.
inline void returnNoSuchProperty(GDBusMethodInvocation* invocation) {
  g_dbus_method_invocation_return_dbus_error(invocation, "hbus.Error.NoSuchProperty",
                                             "no such property");
}

#endif  // NYX_BENCH_BENCH_BUS_H
