#include "daemon/BusEvents.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "daemon/Task.h"
#include "daemon/TaskQueue.h"
#include "daemon/common/COwners.h"
#include "daemon/common/HbusHandleProvider.h"
#include "daemon/common/Logging.h"
#include "libauth.h"
#include "messaging/WispPollReason.h"
#include "messaging/WispPollRequestHandler.h"
#include "registration/NYXRegistrationRequestHandler.h"
#include "registration/NYXRegistrationValues.h"

namespace {

constexpr char kMain[] = "Main";
constexpr char kMissedNudge[] = "missedNUDGE";
constexpr char kComCorvidShell[] = "com.corvid.shell";
constexpr char kFrameworkStartedOfShell[] = "frameworkStarted";

// The number of NudgeTask objects alive, queued or running. Changed and read
// only with sequentially consistent atomics, because tasks are made on the
// listener thread and destroyed on the main thread.
std::atomic<int32_t> pendingNudgeTasks{0};

// Polls the server for one trigger. Counts itself in pendingNudgeTasks for as
// long as it lives, which is what the pending gate looks at.
class NudgeTask : public Task {
 public:
  NudgeTask(const WispPollReason& reason, std::shared_ptr<WispPollRequestHandler> pollHandler)
      : reason_(reason), pollHandler_(std::move(pollHandler)) {
    pendingNudgeTasks.fetch_add(1, std::memory_order_seq_cst);
  }
  ~NudgeTask() override { pendingNudgeTasks.fetch_sub(1, std::memory_order_seq_cst); }
  void run() override { pollHandler_->handlePoll(reason_); }

 private:
  WispPollReason reason_;
  std::shared_ptr<WispPollRequestHandler> pollHandler_;
};

class NYXRegisterTask : public Task {
 public:
  NYXRegisterTask(const std::string& app, const std::string& senders,
                  std::shared_ptr<NYXRegistrationRequestHandler> registrationHandler)
      : app_(app), senders_(senders), registrationHandler_(std::move(registrationHandler)) {}
  void run() override {
    registrationHandler_->handleRegister(app_, senders_, NYXRegistrationReason::AppInitiated);
  }

 private:
  std::string app_;
  std::string senders_;
  std::shared_ptr<NYXRegistrationRequestHandler> registrationHandler_;
};

class NYXUnregisterTask : public Task {
 public:
  NYXUnregisterTask(const std::string& app,
                    std::shared_ptr<NYXRegistrationRequestHandler> registrationHandler)
      : app_(app), registrationHandler_(std::move(registrationHandler)) {}
  void run() override {
    registrationHandler_->handleUnregister(app_, NYXRegistrationReason::AppInitiated);
  }

 private:
  std::string app_;
  std::shared_ptr<NYXRegistrationRequestHandler> registrationHandler_;
};

// The framework is up exactly when the shell's "frameworkStarted" reads 1.
bool frameworkIsUp() {
  HbusHandleStruct* handle = HbusHandleProvider::getHandle(kCobaltDeviceMessaging);
  int value = 0;
  int status = HbusGetIntProperty(handle, kComCorvidShell, kFrameworkStartedOfShell, &value);
  if (status != HBUS_STATUS_OK) {
    logError(kMain, "HbusGetIntProperty failed, prop = %s, status = %d", kFrameworkStartedOfShell,
             status);
    return false;
  }
  return value == 1;
}

// A bus callback runs inside the bus library's C frames, which an exception
// must not unwind. An exception that escapes a callback's work ends the
// process as any uncaught exception does, but std::terminate is called inside
// the handler, where the terminate handler still sees the exception and logs
// its text. (Leaving it to the noexcept boundary instead may terminate before
// the exception counts as caught, and the log would not say why.)
template <typename Body>
int terminateOnException(Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    std::terminate();
  }
}

// The "sender" request parameter: the bus name of the writer, to which the
// answer goes. "" when it is missing or empty.
std::string senderOf(GHashTable* parameters) {
  const char* sender =
      parameters ? static_cast<const char*>(g_hash_table_lookup(parameters, "sender")) : nullptr;
  return sender ? sender : "";
}

// A request without a sender names no application: registering one called
// "" would store a row nobody owns and send the answer nowhere. The bus
// always names the writer, so this is a fault of the bus, logged and dropped.
bool hasSender(const std::string& sender, const char* request) {
  if (sender.empty()) {
    logWarn(kMain, "Ignoring NYX %s request without a sender.", request);
    return false;
  }
  return true;
}

// Returns when status is 0, else throws std::runtime_error
// "<label>: Hbus failure: <status as unsigned>".
void checkHbusStatus(const std::string& label, int status) {
  if (status != HBUS_STATUS_OK) {
    throw std::runtime_error(
        label + ": Hbus failure: " + std::to_string(static_cast<unsigned int>(status)));
  }
}

// The active customer's identifier from the device authentication library,
// or "" when nobody is signed in.
std::string getActiveCustomerId() {
  MallocString customer(libauth_getActiveCustomerID());
  return customer ? std::string(customer.get()) : std::string();
}

// The write handlers of the event properties. Like the request handlers
// they always return 0 and end the process on an exception.
int handleNudgeEvent(HbusHandleStruct*, const char* name, int, void*) noexcept {
  return terminateOnException([&] {
    logInfo(kMain, "Received NUDGE event: %s.", name);
    // Only missed events are coalesced: a queued or running poll will fetch
    // whatever they would have. Push triggers always poll, since they announce
    // a message that may have arrived after the running poll's last page.
    if (strcmp(name, kMissedNudge) == 0 && pendingNudgeTasks.load(std::memory_order_seq_cst) > 0) {
      logInfo(kMain, "Ignoring NUDGE event, because NUDGE tasks are already pending");
      return 0;
    }
    if (!frameworkIsUp()) {
      logInfo(kMain, "Ignoring NUDGE event, because framework is not yet up");
      return 0;
    }
    const bool startup = strcmp(name, kMissedNudge) == 0 ||
                         strcmp(name, "credentialsInstalled") == 0 ||
                         strcmp(name, "FrameworkStarted") == 0;
    const WispPollReason& reason = startup ? WispPollReason::NetworkStartup : WispPollReason::NUDGE;
    taskQueue.push(std::make_unique<NudgeTask>(
        reason, std::make_shared<WispPollRequestHandler>(getActiveCustomerId())));
    return 0;
  });
}

int handleMissedNudgeEvent(HbusHandleStruct* handle, const char* name, int value,
                           void* userData) noexcept {
  return terminateOnException([&] {
    logInfo(kMain, "Received missed NUDGE event: %s.", name);
    if (strcmp(name, "managementStateChanged") == 0 && value != 0) {
      return 0;
    }
    return handleNudgeEvent(handle, kMissedNudge, value, userData);
  });
}

int handleConnectionEvent(HbusHandleStruct* handle, const char* name, const char* value,
                          void* userData) noexcept {
  return terminateOnException([&] {
    logInfo(kMain, "Received %s connection event.", value);
    return handleMissedNudgeEvent(handle, name, 1, userData);
  });
}

int handleFrameworkStarted(HbusHandleStruct* handle, const char* name, const char*,
                           void* userData) noexcept {
  return terminateOnException([&] {
    logInfo(kMain, "Received %s event.", name);
    return handleNudgeEvent(handle, name, 1, userData);
  });
}

}  // namespace

int handleRegisterRequest(HbusHandleStruct*, const char*, const char* value, GHashTable* parameters,
                          void*) noexcept {
  return terminateOnException([&] {
    logInfo(kMain, "Received NYX registration request.");
    const std::string sender = senderOf(parameters);
    if (!hasSender(sender, "registration")) {
      return 0;
    }
    taskQueue.push(std::make_unique<NYXRegisterTask>(
        sender, value ? value : "",
        std::make_shared<NYXRegistrationRequestHandler>(getActiveCustomerId())));
    return 0;
  });
}

int handleUnregisterRequest(HbusHandleStruct*, const char*, const char*, GHashTable* parameters,
                            void*) noexcept {
  return terminateOnException([&] {
    // "unregtration" is the daemon's established log text; tools match it.
    logInfo(kMain, "Received NYX unregtration request.");
    const std::string sender = senderOf(parameters);
    if (!hasSender(sender, "unregistration")) {
      return 0;
    }
    taskQueue.push(std::make_unique<NYXUnregisterTask>(
        sender, std::make_shared<NYXRegistrationRequestHandler>(getActiveCustomerId())));
    return 0;
  });
}

void registerBusProperties(HbusHandleStruct* handle) {
  logInfo(kMain, "Registering event callbacks.");
  checkHbusStatus("WanRing",
                  HbusRegisterIntProperty(handle, "wanRing", nullptr, handleNudgeEvent, nullptr));
  checkHbusStatus(
      "CredentialsInstalled",
      HbusRegisterIntProperty(handle, "credentialsInstalled", nullptr, handleNudgeEvent, nullptr));
  checkHbusStatus("ManagementStateChanged",
                  HbusRegisterIntProperty(handle, "managementStateChanged", nullptr,
                                          handleMissedNudgeEvent, nullptr));
  checkHbusStatus("PowerResuming", HbusRegisterIntProperty(handle, "resuming", nullptr,
                                                           handleMissedNudgeEvent, nullptr));
  checkHbusStatus("InterfaceChange", HbusRegisterStringProperty(handle, "interfaceChange", nullptr,
                                                                handleConnectionEvent, nullptr));
  // The daemon's own property is "FrameworkStarted"; the shell's, which the
  // framework gate reads, is "frameworkStarted". Both spellings are used on
  // the device.
  checkHbusStatus("FrameworkStarted",
                  HbusRegisterStringProperty(handle, "FrameworkStarted", nullptr,
                                             handleFrameworkStarted, nullptr));
  logInfo(kMain, "Registering property callbacks.");
  checkHbusStatus("NYXRegister", HbusRegisterStringPropertyNew(handle, "nyx_register", nullptr,
                                                               handleRegisterRequest, nullptr));
  checkHbusStatus("NYXUnregister", HbusRegisterStringPropertyNew(handle, "nyx_unregister", nullptr,
                                                                 handleUnregisterRequest, nullptr));
}
