#include "BusNameOwners.h"

#include <memory>

#include "HostOwners.h"

namespace nyxhost {

namespace {

constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

using VariantPtr = GVariantOwner;

VariantPtr callBus(GDBusConnection* connection, const char* method, GVariant* parameters,
                   const GVariantType* replyType, int timeoutMs) {
  return VariantPtr(g_dbus_connection_call_sync(connection, kBusName, kBusPath, kBusName, method,
                                                parameters, replyType, G_DBUS_CALL_FLAGS_NONE,
                                                timeoutMs, nullptr, nullptr));
}

bool isWellKnown(const char* name) { return name[0] != ':' && g_strcmp0(name, kBusName) != 0; }

}  // namespace

BusNameOwners::BusNameOwners(GDBusConnection* connection, GMainContext* context, int timeoutMs)
    : connection_(static_cast<GDBusConnection*>(g_object_ref(connection))) {
  g_main_context_push_thread_default(context);
  subscription_ = g_dbus_connection_signal_subscribe(
      connection_, kBusName, kBusName, "NameOwnerChanged", kBusPath, nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE, &BusNameOwners::onNameOwnerChanged, this, nullptr);
  g_main_context_pop_thread_default(context);

  // Signals that come in meanwhile wait in the context and are applied
  // afterwards, in order; the last change of a name wins, as it should.
  std::lock_guard<std::mutex> lock(mutex_);
  VariantPtr names = callBus(connection_, "ListNames", nullptr, G_VARIANT_TYPE("(as)"), timeoutMs);
  if (!names) {
    return;
  }
  VariantPtr list(g_variant_get_child_value(names.get(), 0));
  const gsize count = g_variant_n_children(list.get());
  try {
    for (gsize i = 0; i < count; ++i) {
      const char* name = nullptr;
      g_variant_get_child(list.get(), i, "&s", &name);
      if (!isWellKnown(name)) {
        continue;
      }
      VariantPtr owner = callBus(connection_, "GetNameOwner", g_variant_new("(s)", name),
                                 G_VARIANT_TYPE("(s)"), timeoutMs);
      if (owner) {
        const char* unique = nullptr;
        g_variant_get(owner.get(), "(&s)", &unique);
        setOwner(name, unique);
      }
    }
  } catch (...) {
    // Out of memory: the names not yet read are learnt when they change hands.
  }
}

BusNameOwners::~BusNameOwners() {
  // No callback runs after this: GDBus drops the ones still queued.
  g_dbus_connection_signal_unsubscribe(connection_, subscription_);
  g_object_unref(connection_);
}

std::string BusNameOwners::senderName(const std::string& uniqueName) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = namesOf_.find(uniqueName);
  return found != namesOf_.end() && found->second.size() == 1 ? *found->second.begin() : uniqueName;
}

void BusNameOwners::onNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                       const gchar*, GVariant* parameters, gpointer self) {
  const char* name = nullptr;
  const char* newOwner = nullptr;
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) {
    return;
  }
  g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &newOwner);
  if (!isWellKnown(name)) {
    return;
  }
  auto* owners = static_cast<BusNameOwners*>(self);
  // Nothing may unwind into GDBus; a name that cannot be recorded for lack
  // of memory is left as it was.
  try {
    std::lock_guard<std::mutex> lock(owners->mutex_);
    owners->setOwner(name, newOwner);
  } catch (...) {
  }
}

void BusNameOwners::setOwner(const std::string& name, const std::string& owner) {
  auto previous = ownerOf_.find(name);
  if (previous != ownerOf_.end()) {
    auto names = namesOf_.find(previous->second);
    if (names != namesOf_.end()) {
      names->second.erase(name);
      if (names->second.empty()) {
        namesOf_.erase(names);
      }
    }
    ownerOf_.erase(previous);
  }
  if (!owner.empty()) {
    ownerOf_[name] = owner;
    namesOf_[owner].insert(name);
  }
}

}  // namespace nyxhost
