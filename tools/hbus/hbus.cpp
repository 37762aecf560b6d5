// hbus: the property bus from a shell.
//
//   hbus set SERVICE PROPERTY VALUE       write a string property
//   hbus set-int SERVICE PROPERTY N       write an integer property
//   hbus get SERVICE PROPERTY             print a string property
//   hbus get-int SERVICE PROPERTY         print an integer property
//   hbus serve SERVICE [--int NAME=VALUE]... [--string NAME[=VALUE]]...
//
// Calls go out from an anonymous handle (a unique name only), so a call never
// takes a service name away from anyone. The exit status is the bus status
// (0 success, 3 no such service, 8 no such property, ...), 2 for a bad
// command line. "serve" owns SERVICE and prints one line per write until
// SIGINT or SIGTERM; handlers run on the bus listener thread, the main thread
// only waits for the signal.
#include <glib.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "hbus.h"
#include "nyx_host_hbus.h"

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: hbus set SERVICE PROPERTY VALUE\n"
    "       hbus set-int SERVICE PROPERTY N\n"
    "       hbus get SERVICE PROPERTY\n"
    "       hbus get-int SERVICE PROPERTY\n"
    "       hbus serve SERVICE [--int NAME=VALUE]... [--string NAME[=VALUE]]...\n"
    "\n"
    "Reads and writes properties of services on the property bus (the D-Bus\n"
    "session bus, or the system bus with HBUS_BUS=system). \"serve\" publishes\n"
    "the given properties, readable and writable, and prints every write as\n"
    "  write PROPERTY VALUE from SENDER\n"
    "until SIGINT or SIGTERM.\n"
    "\n"
    "Exit status: the bus status (0 ok, 1 failure or time-out, 3 no such\n"
    "service, 8 no such property, else the status the service answered;\n"
    "statuses outside 1..255 exit with 1), or 2 for a bad command line.\n"
    "Environment: HBUS_BUS, HBUS_TIMEOUT_MS (call time-out, default 10000).\n";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct HandleCloser {
  void operator()(HbusHandleStruct* handle) const { HbusClose(handle); }
};
using Handle = std::unique_ptr<HbusHandleStruct, HandleCloser>;

int parseInt(const std::string& text, const std::string& what) {
  gint64 value = 0;
  if (!g_ascii_string_to_signed(text.c_str(), 10, G_MININT32, G_MAXINT32, &value, nullptr)) {
    throw UsageError(what + " must be a 32-bit integer, not '" + text + "'");
  }
  return static_cast<int>(value);
}

const char* statusText(int status) {
  switch (status) {
    case HBUS_STATUS_FAILURE:
      return "failure or no answer in time";
    case HBUS_STATUS_NO_SUCH_SERVICE:
      return "no such service";
    case HBUS_STATUS_NO_SUCH_PROPERTY:
      return "no such property";
    default:
      return "refused by the service";
  }
}

int exitStatus(int status) { return status >= 0 && status <= 255 ? status : 1; }

int report(const std::string& what, int status) {
  if (status != HBUS_STATUS_OK) {
    std::fprintf(stderr, "hbus: %s: status %d (%s)\n", what.c_str(), status, statusText(status));
  }
  return exitStatus(status);
}

Handle openAnonymous(int* status) { return Handle(HbusInitEx(nullptr, status)); }

int runCall(const std::vector<std::string>& args) {
  const std::string& command = args[0];
  const bool isSet = command == "set" || command == "set-int";
  if (args.size() != (isSet ? 4u : 3u)) {
    throw UsageError(command + " takes " + (isSet ? "SERVICE PROPERTY VALUE" : "SERVICE PROPERTY"));
  }
  const std::string& service = args[1];
  const std::string& property = args[2];
  const int intValue = command == "set-int" ? parseInt(args[3], "N") : 0;
  int status = 0;
  Handle handle = openAnonymous(&status);
  if (status != HBUS_STATUS_OK) {
    return report("cannot connect to the bus", status);
  }
  const std::string what = command + " " + service + " " + property;
  if (command == "set") {
    return report(what, HbusSetStringProperty(handle.get(), service.c_str(), property.c_str(),
                                              args[3].c_str()));
  }
  if (command == "set-int") {
    return report(what,
                  HbusSetIntProperty(handle.get(), service.c_str(), property.c_str(), intValue));
  }
  if (command == "get-int") {
    int value = 0;
    status = HbusGetIntProperty(handle.get(), service.c_str(), property.c_str(), &value);
    if (status == HBUS_STATUS_OK) {
      std::printf("%d\n", value);
    }
    return report(what, status);
  }
  char* raw = nullptr;
  status = HbusGetStringProperty(handle.get(), service.c_str(), property.c_str(), &raw);
  std::unique_ptr<char, decltype(&g_free)> value(raw, g_free);
  if (status == HBUS_STATUS_OK) {
    std::printf("%s\n", value ? value.get() : "");
  }
  return report(what, status);
}

// The served properties' values, shared by the handlers on the listener
// thread.
struct Served {
  std::mutex mutex;
  std::map<std::string, int> ints;
  std::map<std::string, std::string> strings;
};
Served served;

std::string quoted(const char* value) {
  // Bytes 0x80..0xff pass unescaped, so UTF-8 text stays readable.
  static const std::string kHighBytes = [] {
    std::string bytes;
    for (int c = 0x80; c <= 0xff; ++c) {
      bytes += static_cast<char>(c);
    }
    return bytes;
  }();
  std::unique_ptr<gchar, decltype(&g_free)> escaped(g_strescape(value, kHighBytes.c_str()), g_free);
  return std::string("\"") + escaped.get() + "\"";
}

void printWrite(const char* property, const std::string& value) {
  const char* sender = nyx_host_hbus_current_sender();
  std::printf("write %s %s from %s\n", property, value.c_str(), sender != nullptr ? sender : "?");
  std::fflush(stdout);
}

int readInt(HbusHandleStruct*, const char* property, int* value, void*) {
  std::lock_guard<std::mutex> lock(served.mutex);
  *value = served.ints[property];
  return HBUS_STATUS_OK;
}

int writeInt(HbusHandleStruct*, const char* property, int value, void*) {
  {
    std::lock_guard<std::mutex> lock(served.mutex);
    served.ints[property] = value;
  }
  printWrite(property, std::to_string(value));
  return HBUS_STATUS_OK;
}

int readString(HbusHandleStruct*, const char* property, char** value, void*) {
  std::lock_guard<std::mutex> lock(served.mutex);
  *value = g_strdup(served.strings[property].c_str());
  return HBUS_STATUS_OK;
}

int writeString(HbusHandleStruct*, const char* property, const char* value, GHashTable*, void*) {
  {
    std::lock_guard<std::mutex> lock(served.mutex);
    served.strings[property] = value;
  }
  printWrite(property, quoted(value));
  return HBUS_STATUS_OK;
}

int runServe(const std::vector<std::string>& args, const sigset_t& stopSignals) {
  if (args.size() < 2 || args[1].rfind("--", 0) == 0) {
    throw UsageError("serve takes SERVICE [--int NAME=VALUE]... [--string NAME[=VALUE]]...");
  }
  const std::string& service = args[1];
  for (size_t i = 2; i < args.size(); ++i) {
    const std::string& option = args[i];
    if ((option != "--int" && option != "--string") || i + 1 == args.size()) {
      throw UsageError("expected --int NAME=VALUE or --string NAME[=VALUE], not '" + option + "'");
    }
    const std::string assignment = args[++i];
    const size_t equals = assignment.find('=');
    const std::string name = assignment.substr(0, equals);
    if (name.empty()) {
      throw UsageError("a property needs a name: '" + assignment + "'");
    }
    if (option == "--int") {
      if (equals == std::string::npos) {
        throw UsageError("--int needs NAME=VALUE: '" + assignment + "'");
      }
      served.ints[name] = parseInt(assignment.substr(equals + 1), "the value of " + name);
    } else {
      served.strings[name] = equals == std::string::npos ? "" : assignment.substr(equals + 1);
    }
  }

  int status = 0;
  Handle handle(HbusInitEx(service.c_str(), &status));
  if (status != HBUS_STATUS_OK) {
    return report("cannot serve " + service + " (invalid, taken, or no bus)", status);
  }
  for (const auto& entry : served.ints) {
    status = HbusRegisterIntProperty(handle.get(), entry.first.c_str(), readInt, writeInt, nullptr);
    if (status != HBUS_STATUS_OK) {
      return report("cannot register " + entry.first, status);
    }
  }
  for (const auto& entry : served.strings) {
    status = HbusRegisterStringPropertyNew(handle.get(), entry.first.c_str(), readString,
                                           writeString, nullptr);
    if (status != HBUS_STATUS_OK) {
      return report("cannot register " + entry.first, status);
    }
  }
  HbusStartListener(handle.get());
  std::printf("serving %s as %s\n", service.c_str(), nyx_host_hbus_unique_name(handle.get()));
  std::fflush(stdout);
  int received = 0;
  sigwait(&stopSignals, &received);
  handle.reset();
  std::printf("stopped\n");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before any thread exists, so that GDBus's and the listener's
  // threads inherit the mask and only sigwait below sees the signals.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::vector<std::string> args(argv + 1, argv + argc);
  // Only in the place of the command or its first operand, so that a value
  // "--help" can still be written.
  for (size_t i = 0; i < args.size() && i < 2; ++i) {
    if (args[i] == "--help" || args[i] == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
  }
  try {
    if (args.empty()) {
      throw UsageError("a command is required");
    }
    const std::string& command = args[0];
    if (command == "serve") {
      return runServe(args, stopSignals);
    }
    if (command == "set" || command == "set-int" || command == "get" || command == "get-int") {
      return runCall(args);
    }
    throw UsageError("unknown command '" + command + "'");
  } catch (const UsageError& error) {
    std::fprintf(stderr, "hbus: %s\n%s", error.what(), kUsage);
    return kUsageError;
  }
}
