// Which well-known names each connection on the bus owns, so that a write
// handler can name its caller the way the property bus promises: by its
// well-known name when it owns exactly one, otherwise by its unique name.
//
// Kept current from the bus's NameOwnerChanged signals rather than by asking
// the bus at every write, which would cost a round trip per name. The
// signals are delivered to the handle's context, in the order the bus sent
// them between the method calls, so a write sees the names its caller owned
// when the bus passed the write on. Made by the thread that registers the
// property; read and updated on the listener thread.
#ifndef NYX_PLATFORM_HOST_BUS_NAME_OWNERS_H
#define NYX_PLATFORM_HOST_BUS_NAME_OWNERS_H

#include <gio/gio.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

namespace nyxhost {

class BusNameOwners {
 public:
  // Subscribes to NameOwnerChanged with context as the callbacks' context,
  // then reads the names owned now (ListNames, GetNameOwner). A failed read
  // leaves those names out until they change hands.
  BusNameOwners(GDBusConnection* connection, GMainContext* context, int timeoutMs);
  ~BusNameOwners();
  BusNameOwners(const BusNameOwners&) = delete;
  BusNameOwners& operator=(const BusNameOwners&) = delete;

  // The one well-known name uniqueName owns, or uniqueName itself when it
  // owns none or more than one.
  std::string senderName(const std::string& uniqueName) const;

 private:
  static void onNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                 const gchar*, GVariant* parameters, gpointer self);
  // Called with mutex_ held. An empty owner means the name has none.
  void setOwner(const std::string& name, const std::string& owner);

  GDBusConnection* connection_;
  guint subscription_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, std::string> ownerOf_;            // well-known name -> unique name
  std::map<std::string, std::set<std::string>> namesOf_;  // unique name -> well-known names
};

}  // namespace nyxhost

#endif  // NYX_PLATFORM_HOST_BUS_NAME_OWNERS_H
