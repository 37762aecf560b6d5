// The property bus on D-Bus.
//
// Each handle is its own private connection to the session bus (or the
// system bus with HBUS_BUS=system) and its own GMainContext. The object
// /hbus is exported while that context is the thread-default one, so GDBus
// queues every incoming call there: nothing runs a handler until the
// listener thread of HbusStartListener iterates the context, and from then
// on every handler runs on that one thread. Calls to other services are
// synchronous D-Bus calls that any thread may make; GDBus's own worker
// thread carries the messages.
#include <gio/gio.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "BusNameOwners.h"
#include "HostOwners.h"
#include "hbus.h"
#include "nyx_host_hbus.h"

namespace {

constexpr char kObjectPath[] = "/hbus";
constexpr char kInterface[] = "hbus.Properties";
constexpr char kErrorNoSuchProperty[] = "hbus.Error.NoSuchProperty";
constexpr char kErrorStatus[] = "hbus.Error.Status";
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr int kDefaultTimeoutMs = 10000;
// Releasing the name at close must not hold up a process that is stopping.
constexpr int kReleaseTimeoutMs = 1000;

constexpr char kIntrospection[] =
    "<node>"
    " <interface name='hbus.Properties'>"
    "  <method name='SetString'>"
    "   <arg name='property' type='s' direction='in'/>"
    "   <arg name='value' type='s' direction='in'/>"
    "  </method>"
    "  <method name='SetInt'>"
    "   <arg name='property' type='s' direction='in'/>"
    "   <arg name='value' type='i' direction='in'/>"
    "  </method>"
    "  <method name='GetString'>"
    "   <arg name='property' type='s' direction='in'/>"
    "   <arg name='value' type='s' direction='out'/>"
    "  </method>"
    "  <method name='GetInt'>"
    "   <arg name='property' type='s' direction='in'/>"
    "   <arg name='value' type='i' direction='out'/>"
    "  </method>"
    " </interface>"
    "</node>";

// Parsed once and kept for the life of the process.
GDBusInterfaceInfo* interfaceInfo() {
  static GDBusInterfaceInfo* info = [] {
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    GDBusInterfaceInfo* found = g_dbus_node_info_lookup_interface(node, kInterface);
    g_dbus_interface_info_ref(found);
    g_dbus_node_info_unref(node);
    return found;
  }();
  return info;
}

enum class PropertyType { kInt, kString };

// A registered property. Values written without a read handler are kept, so
// that a plain property reads back what was last written.
struct Property {
  PropertyType type = PropertyType::kString;
  HbusIntReadHandler intRead = nullptr;
  HbusIntWriteHandler intWrite = nullptr;
  HbusStringReadHandler stringRead = nullptr;
  HbusStringWriteHandler stringWrite = nullptr;
  HbusStringWriteHandlerNew stringWriteNew = nullptr;
  void* userData = nullptr;
  int intValue = 0;
  std::string stringValue;
};

thread_local const char* currentSender = nullptr;

// Names the caller for nyx_host_hbus_current_sender while a handler runs.
class SenderScope {
 public:
  explicit SenderScope(const char* sender) { currentSender = sender; }
  ~SenderScope() { currentSender = nullptr; }
  SenderScope(const SenderScope&) = delete;
  SenderScope& operator=(const SenderScope&) = delete;
};

using ErrorPtr = nyxhost::GErrorOwner;
using VariantPtr = nyxhost::GVariantOwner;

bool validText(const char* text) { return text != nullptr && g_utf8_validate(text, -1, nullptr); }

GBusType busType() {
  const char* which = g_getenv("HBUS_BUS");
  return which != nullptr && g_strcmp0(which, "system") == 0 ? G_BUS_TYPE_SYSTEM
                                                             : G_BUS_TYPE_SESSION;
}

int callTimeoutMs() {
  gint64 value = 0;
  const char* text = g_getenv("HBUS_TIMEOUT_MS");
  if (text == nullptr || !g_ascii_string_to_signed(text, 10, 1, G_MAXINT, &value, nullptr)) {
    return kDefaultTimeoutMs;
  }
  return static_cast<int>(value);
}

// The status table of the calling side.
int statusOfError(GError* error) {
  if (!g_dbus_error_is_remote_error(error)) {
    return HBUS_STATUS_FAILURE;  // time-out, closed connection, bad reply
  }
  nyxhost::GFreeString name(g_dbus_error_get_remote_error(error));
  const std::string errorName = name ? name.get() : "";
  if (errorName == "org.freedesktop.DBus.Error.ServiceUnknown" ||
      errorName == "org.freedesktop.DBus.Error.NameHasNoOwner") {
    return HBUS_STATUS_NO_SUCH_SERVICE;
  }
  if (errorName == kErrorNoSuchProperty ||
      errorName == "org.freedesktop.DBus.Error.UnknownMethod" ||
      errorName == "org.freedesktop.DBus.Error.UnknownObject" ||
      errorName == "org.freedesktop.DBus.Error.UnknownInterface") {
    return HBUS_STATUS_NO_SUCH_PROPERTY;
  }
  if (errorName == kErrorStatus) {
    g_dbus_error_strip_remote_error(error);
    gint64 status = 0;
    if (g_ascii_string_to_signed(error->message, 10, G_MININT, G_MAXINT, &status, nullptr)) {
      return static_cast<int>(status);
    }
  }
  return HBUS_STATUS_FAILURE;
}

}  // namespace

struct HbusHandleStruct {
  GMainContext* context = nullptr;
  GDBusConnection* connection = nullptr;
  guint registration = 0;
  gulong closedHandler = 0;
  std::string ownedName;

  std::mutex propertiesMutex;
  std::map<std::string, Property> properties;
  // Made with the first property whose writes name their sender.
  std::unique_ptr<nyxhost::BusNameOwners> nameOwners;

  std::mutex listenerMutex;
  GMainLoop* loop = nullptr;
  std::thread listener;
};

namespace {

void answerStatus(GDBusMethodInvocation* invocation, int status) {
  g_dbus_method_invocation_return_dbus_error(invocation, kErrorStatus,
                                             std::to_string(status).c_str());
}

// Runs on the listener thread, with a copy of the property's record so that
// no lock is held while the handler runs.
void dispatchCall(HbusHandleStruct* handle, const char* sender, const std::string& method,
                  GVariant* parameters, GDBusMethodInvocation* invocation) {
  const bool isInt = method == "SetInt" || method == "GetInt";
  const bool isWrite = method == "SetString" || method == "SetInt";
  const char* name = nullptr;
  g_variant_get_child(parameters, 0, "&s", &name);

  Property property;
  nyxhost::BusNameOwners* nameOwners = nullptr;
  {
    std::lock_guard<std::mutex> lock(handle->propertiesMutex);
    nameOwners = handle->nameOwners.get();
    auto found = handle->properties.find(name);
    if (found == handle->properties.end() || (found->second.type == PropertyType::kInt) != isInt) {
      const std::string message =
          std::string("no ") + (isInt ? "integer" : "string") + " property " + name;
      g_dbus_method_invocation_return_dbus_error(invocation, kErrorNoSuchProperty, message.c_str());
      return;
    }
    property = found->second;
  }

  SenderScope scope(sender);
  int status = HBUS_STATUS_OK;
  if (isWrite && isInt) {
    gint32 value = 0;
    g_variant_get_child(parameters, 1, "i", &value);
    if (property.intWrite != nullptr) {
      status = property.intWrite(handle, name, value, property.userData);
    }
    if (status == HBUS_STATUS_OK) {
      std::lock_guard<std::mutex> lock(handle->propertiesMutex);
      handle->properties[name].intValue = value;
    }
  } else if (isWrite) {
    const char* value = nullptr;
    g_variant_get_child(parameters, 1, "&s", &value);
    if (property.stringWriteNew != nullptr) {
      nyxhost::GHashTableOwner parametersTable(
          g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
      const std::string senderName =
          nameOwners != nullptr ? nameOwners->senderName(sender) : std::string(sender);
      g_hash_table_insert(parametersTable.get(), g_strdup("sender"), g_strdup(senderName.c_str()));
      status =
          property.stringWriteNew(handle, name, value, parametersTable.get(), property.userData);
    } else if (property.stringWrite != nullptr) {
      status = property.stringWrite(handle, name, value, property.userData);
    }
    if (status == HBUS_STATUS_OK) {
      std::lock_guard<std::mutex> lock(handle->propertiesMutex);
      handle->properties[name].stringValue = value;
    }
  } else if (isInt) {
    int value = property.intValue;
    if (property.intRead != nullptr) {
      status = property.intRead(handle, name, &value, property.userData);
    }
    if (status == HBUS_STATUS_OK) {
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", value));
      return;
    }
  } else {
    nyxhost::GFreeString read;
    if (property.stringRead != nullptr) {
      char* value = nullptr;
      status = property.stringRead(handle, name, &value, property.userData);
      read.reset(value);
    }
    const char* value = property.stringRead != nullptr ? read.get() : property.stringValue.c_str();
    if (status == HBUS_STATUS_OK) {
      if (!validText(value != nullptr ? value : "")) {
        answerStatus(invocation, HBUS_STATUS_FAILURE);
        return;
      }
      g_dbus_method_invocation_return_value(invocation,
                                            g_variant_new("(s)", value != nullptr ? value : ""));
      return;
    }
  }
  if (status != HBUS_STATUS_OK) {
    answerStatus(invocation, status);
  } else {
    g_dbus_method_invocation_return_value(invocation, nullptr);
  }
}

void onMethodCall(GDBusConnection* /*connection*/, const gchar* sender, const gchar* /*path*/,
                  const gchar* /*interface*/, const gchar* method, GVariant* parameters,
                  GDBusMethodInvocation* invocation, gpointer userData) {
  // Nothing may unwind into GDBus; a failure inside is answered as one.
  try {
    dispatchCall(static_cast<HbusHandleStruct*>(userData), sender, method, parameters, invocation);
  } catch (...) {
    answerStatus(invocation, HBUS_STATUS_FAILURE);
  }
}

const GDBusInterfaceVTable kVTable = {onMethodCall, nullptr, nullptr, {nullptr}};

// The connection closed without HbusClose (which disconnects this first):
// the bus daemon went away, for example restarted. Nothing will reach this
// process's properties again, and a process that looks alive but hears
// nothing is never restarted by its supervisor. So it ends, with a non-zero
// status that a supervisor restarts on failure, after saying why on standard
// error and in syslog (a service's standard error may go nowhere). Runs on
// the listener thread; _exit, because the other threads are still running
// and no destructor may run under them.
void onConnectionClosed(GDBusConnection* connection, gboolean /*remotePeerVanished*/, GError* error,
                        gpointer userData) {
  auto* handle = static_cast<HbusHandleStruct*>(userData);
  const char* name = !handle->ownedName.empty() ? handle->ownedName.c_str()
                                                : g_dbus_connection_get_unique_name(connection);
  char text[512];
  snprintf(text, sizeof text, "Lost the connection to the bus (service %s): %s. Exiting.",
           name != nullptr ? name : "(anonymous)",
           error != nullptr ? error->message : "closed by the bus");
  fprintf(stderr, "E Hbus: %s\n", text);
  syslog(LOG_ERR, "Hbus: %s", text);
  _exit(EXIT_FAILURE);
}

// The status of a failed HbusInitEx names no bus and no cause, so the cause
// goes to standard error first (the journal, under a service manager): which
// bus, at which address, and the bus library's own message.
void reportInitFailure(const std::string& bus, const std::string& what, const char* reason) {
  g_printerr("hbus: %s the %s: %s\n", what.c_str(), bus.c_str(),
             reason != nullptr ? reason : "unknown error");
}

std::string busLabel(const char* address) {
  std::string label = busType() == G_BUS_TYPE_SYSTEM ? "system bus" : "session bus";
  return address != nullptr ? label + " at " + address : label;
}

// Owns name without queueing: 0, or the status of HbusInitEx.
int requestName(GDBusConnection* connection, const char* name, const std::string& bus) {
  GError* rawError = nullptr;
  VariantPtr reply(g_dbus_connection_call_sync(
      connection, kBusName, kBusPath, kBusName, "RequestName",
      g_variant_new("(su)", name, static_cast<guint32>(G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE)),
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, callTimeoutMs(), nullptr, &rawError));
  ErrorPtr error(rawError);
  const std::string what = std::string("cannot own the name ") + name + " on";
  if (!reply) {
    reportInitFailure(bus, what, error->message);
    return HBUS_STATUS_FAILURE;
  }
  guint32 result = 0;
  g_variant_get(reply.get(), "(u)", &result);
  // 1: now the primary owner; 4: already was. 3 (exists) means it is taken.
  if (result != 1 && result != 4) {
    reportInitFailure(bus, what, "another connection owns it");
    return HBUS_STATUS_FAILURE;
  }
  return HBUS_STATUS_OK;
}

// Connects and exports /hbus with the handle's context as thread-default, so
// that GDBus delivers the object's calls and the connection's own events to
// that context. Returns 0 or a status; bus is set to the bus tried.
int connectHandle(HbusHandleStruct* handle, std::string& bus) {
  GError* rawError = nullptr;
  nyxhost::GFreeString address(g_dbus_address_get_for_bus_sync(busType(), nullptr, &rawError));
  ErrorPtr addressError(rawError);
  bus = busLabel(address.get());
  if (!address) {
    reportInitFailure(bus, "cannot find", addressError->message);
    return HBUS_STATUS_FAILURE;
  }
  g_main_context_push_thread_default(handle->context);
  handle->connection = g_dbus_connection_new_for_address_sync(
      address.get(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &rawError);
  ErrorPtr connectError(rawError);
  rawError = nullptr;
  if (handle->connection != nullptr) {
    // GDBus would raise SIGTERM on a lost bus, which reads as a clean stop;
    // onConnectionClosed ends the process as a failure instead.
    g_dbus_connection_set_exit_on_close(handle->connection, FALSE);
    handle->closedHandler =
        g_signal_connect(handle->connection, "closed", G_CALLBACK(onConnectionClosed), handle);
    handle->registration = g_dbus_connection_register_object(
        handle->connection, kObjectPath, interfaceInfo(), &kVTable, handle, nullptr, &rawError);
  }
  ErrorPtr registerError(rawError);
  g_main_context_pop_thread_default(handle->context);
  if (handle->connection == nullptr) {
    reportInitFailure(bus, "cannot connect to", connectError->message);
  } else if (handle->registration == 0) {
    reportInitFailure(bus, "cannot export /hbus on", registerError->message);
  }
  return handle->connection != nullptr && handle->registration != 0 ? HBUS_STATUS_OK
                                                                    : HBUS_STATUS_FAILURE;
}

void stopListener(HbusHandleStruct* handle) {
  std::lock_guard<std::mutex> lock(handle->listenerMutex);
  if (handle->loop == nullptr) {
    return;
  }
  // Quit from inside the loop: a g_main_loop_quit that came before
  // g_main_loop_run started would be lost, an idle source never is.
  GSource* quit = g_idle_source_new();
  g_source_set_callback(
      quit,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      handle->loop, nullptr);
  g_source_attach(quit, handle->context);
  g_source_unref(quit);
  if (handle->listener.get_id() == std::this_thread::get_id()) {
    handle->listener.detach();  // closed from a handler: the loop ends after it
  } else if (handle->listener.joinable()) {
    handle->listener.join();
  }
  g_main_loop_unref(handle->loop);
  handle->loop = nullptr;
}

// Every call of the calling side: checks the target, then calls it
// synchronously. *reply is set on success when reply is not null.
int callService(HbusHandleStruct* handle, const char* service, const char* method,
                GVariant* parameters, const GVariantType* replyType, VariantPtr* reply) {
  VariantPtr owned(g_variant_ref_sink(parameters));
  if (handle == nullptr || handle->connection == nullptr) {
    return HBUS_STATUS_FAILURE;
  }
  if (service == nullptr || !g_dbus_is_name(service)) {
    return HBUS_STATUS_NO_SUCH_SERVICE;
  }
  GError* rawError = nullptr;
  VariantPtr result(g_dbus_connection_call_sync(
      handle->connection, service, kObjectPath, kInterface, method, owned.get(), replyType,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, callTimeoutMs(), nullptr, &rawError));
  ErrorPtr error(rawError);
  if (!result) {
    return error ? statusOfError(error.get()) : HBUS_STATUS_FAILURE;
  }
  if (reply != nullptr) {
    *reply = std::move(result);
  }
  return HBUS_STATUS_OK;
}

int registerProperty(HbusHandleStruct* handle, const char* name, const Property& property) {
  if (handle == nullptr || !validText(name)) {
    return HBUS_STATUS_FAILURE;
  }
  try {
    std::lock_guard<std::mutex> lock(handle->propertiesMutex);
    handle->properties[name] = property;
  } catch (...) {
    return HBUS_STATUS_FAILURE;
  }
  return HBUS_STATUS_OK;
}

}  // namespace

HbusHandleStruct* HbusInitEx(const char* serviceName, int* status) {
  int ignored = 0;
  int& result = status != nullptr ? *status : ignored;
  const bool anonymous = serviceName == nullptr || *serviceName == '\0';
  if (!anonymous && (!g_dbus_is_name(serviceName) || g_dbus_is_unique_name(serviceName))) {
    g_printerr("hbus: cannot own the name \"%s\": not a valid well-known bus name\n", serviceName);
    result = HBUS_STATUS_NO_SUCH_SERVICE;
    return nullptr;
  }
  HbusHandleStruct* handle = nullptr;
  try {
    handle = new HbusHandleStruct();
  } catch (...) {
    result = HBUS_STATUS_FAILURE;
    return nullptr;
  }
  handle->context = g_main_context_new();
  std::string bus;
  result = connectHandle(handle, bus);
  if (result == HBUS_STATUS_OK && !anonymous) {
    result = requestName(handle->connection, serviceName, bus);
    if (result == HBUS_STATUS_OK) {
      handle->ownedName = serviceName;
    }
  }
  if (result != HBUS_STATUS_OK) {
    HbusClose(handle);
    return nullptr;
  }
  return handle;
}

void HbusClose(HbusHandleStruct* handle) {
  if (handle == nullptr) {
    return;
  }
  stopListener(handle);
  if (handle->connection != nullptr) {
    if (handle->closedHandler != 0) {
      g_signal_handler_disconnect(handle->connection, handle->closedHandler);
    }
    if (handle->registration != 0) {
      g_dbus_connection_unregister_object(handle->connection, handle->registration);
    }
    // Released before the connection closes, so that the name is free the
    // moment HbusClose returns, not when the bus notices the disconnect.
    if (!handle->ownedName.empty() && !g_dbus_connection_is_closed(handle->connection)) {
      VariantPtr reply(g_dbus_connection_call_sync(
          handle->connection, kBusName, kBusPath, kBusName, "ReleaseName",
          g_variant_new("(s)", handle->ownedName.c_str()), G_VARIANT_TYPE("(u)"),
          G_DBUS_CALL_FLAGS_NONE, kReleaseTimeoutMs, nullptr, nullptr));
    }
    g_dbus_connection_close_sync(handle->connection, nullptr, nullptr);
  }
  // Calls still queued in the context are answered "unknown method" by
  // GDBus now that the object is gone; this also frees what they hold.
  while (g_main_context_iteration(handle->context, FALSE)) {
  }
  handle->nameOwners.reset();
  if (handle->connection != nullptr) {
    g_object_unref(handle->connection);
  }
  g_main_context_unref(handle->context);
  delete handle;
}

int HbusRegisterIntProperty(HbusHandleStruct* handle, const char* property,
                            HbusIntReadHandler readHandler, HbusIntWriteHandler writeHandler,
                            void* userData) {
  Property record;
  record.type = PropertyType::kInt;
  record.intRead = readHandler;
  record.intWrite = writeHandler;
  record.userData = userData;
  return registerProperty(handle, property, record);
}

int HbusRegisterStringProperty(HbusHandleStruct* handle, const char* property,
                               HbusStringReadHandler readHandler,
                               HbusStringWriteHandler writeHandler, void* userData) {
  Property record;
  record.stringRead = readHandler;
  record.stringWrite = writeHandler;
  record.userData = userData;
  return registerProperty(handle, property, record);
}

int HbusRegisterStringPropertyNew(HbusHandleStruct* handle, const char* property,
                                  HbusStringReadHandler readHandler,
                                  HbusStringWriteHandlerNew writeHandler, void* userData) {
  Property record;
  record.stringRead = readHandler;
  record.stringWriteNew = writeHandler;
  record.userData = userData;
  const int status = registerProperty(handle, property, record);
  if (status == HBUS_STATUS_OK && handle->connection != nullptr) {
    try {
      std::lock_guard<std::mutex> lock(handle->propertiesMutex);
      if (!handle->nameOwners) {
        handle->nameOwners = std::make_unique<nyxhost::BusNameOwners>(
            handle->connection, handle->context, callTimeoutMs());
      }
    } catch (...) {
      return HBUS_STATUS_FAILURE;
    }
  }
  return status;
}

int HbusStartListener(HbusHandleStruct* handle) {
  if (handle == nullptr) {
    return HBUS_STATUS_FAILURE;
  }
  std::lock_guard<std::mutex> lock(handle->listenerMutex);
  if (handle->loop != nullptr) {
    return HBUS_STATUS_OK;
  }
  handle->loop = g_main_loop_new(handle->context, FALSE);
  try {
    // The thread holds its own references: a handler that closes the handle
    // detaches the thread, which then outlives the handle briefly.
    GMainContext* context = g_main_context_ref(handle->context);
    GMainLoop* loop = g_main_loop_ref(handle->loop);
    handle->listener = std::thread([context, loop] {
      g_main_context_push_thread_default(context);
      g_main_loop_run(loop);
      g_main_context_pop_thread_default(context);
      g_main_loop_unref(loop);
      g_main_context_unref(context);
    });
  } catch (...) {
    g_main_loop_unref(handle->loop);
    handle->loop = nullptr;
    return HBUS_STATUS_FAILURE;
  }
  return HBUS_STATUS_OK;
}

int HbusGetIntProperty(HbusHandleStruct* handle, const char* service, const char* property,
                       int* value) {
  if (!validText(property) || value == nullptr) {
    return HBUS_STATUS_FAILURE;
  }
  VariantPtr reply;
  const int status = callService(handle, service, "GetInt", g_variant_new("(s)", property),
                                 G_VARIANT_TYPE("(i)"), &reply);
  if (status == HBUS_STATUS_OK) {
    gint32 read = 0;
    g_variant_get(reply.get(), "(i)", &read);
    *value = read;
  }
  return status;
}

int HbusSetStringProperty(HbusHandleStruct* handle, const char* service, const char* property,
                          const char* value) {
  if (!validText(property) || !validText(value)) {
    return HBUS_STATUS_FAILURE;
  }
  return callService(handle, service, "SetString", g_variant_new("(ss)", property, value),
                     G_VARIANT_TYPE_UNIT, nullptr);
}

int HbusSetIntProperty(HbusHandleStruct* handle, const char* service, const char* property,
                       int value) {
  if (!validText(property)) {
    return HBUS_STATUS_FAILURE;
  }
  return callService(handle, service, "SetInt",
                     g_variant_new("(si)", property, static_cast<gint32>(value)),
                     G_VARIANT_TYPE_UNIT, nullptr);
}

int HbusGetStringProperty(HbusHandleStruct* handle, const char* service, const char* property,
                          char** value) {
  if (!validText(property) || value == nullptr) {
    return HBUS_STATUS_FAILURE;
  }
  VariantPtr reply;
  const int status = callService(handle, service, "GetString", g_variant_new("(s)", property),
                                 G_VARIANT_TYPE("(s)"), &reply);
  if (status == HBUS_STATUS_OK) {
    g_variant_get(reply.get(), "(s)", value);
  }
  return status;
}

const char* nyx_host_hbus_unique_name(HbusHandleStruct* handle) {
  return handle != nullptr && handle->connection != nullptr
             ? g_dbus_connection_get_unique_name(handle->connection)
             : nullptr;
}

const char* nyx_host_hbus_current_sender(void) { return currentSender; }
