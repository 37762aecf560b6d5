// nyx-bench-service: a property-bus service that does as little as possible,
// so that its own cost is small and the same whoever writes to it.
//
//   nyx-bench-service --name NAME [--int PROPERTY=VALUE]... [--mark-every N]
//
// It owns NAME, exports /hbus with hbus.Properties, answers GetInt for the
// given properties (hbus.Error.NoSuchProperty for any other) and accepts every
// SetString and SetInt. It counts the SetString writes and the bytes of their
// values; at every Nth write it prints "write COUNT TIME_NS BYTES" on standard
// output, TIME_NS being the monotonic time at which that write arrived. It
// prints "ready" once the name is owned and ends on SIGTERM or SIGINT.
#include <glib-unix.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include "bench/BenchBus.h"

namespace {

struct Service {
  std::map<std::string, int> ints;
  unsigned long long markEvery = 1;
  unsigned long long writes = 0;
  unsigned long long bytes = 0;
  GMainLoop* loop = nullptr;
};

void handleCall(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                gpointer userData) {
  const long long arrived = nyxbench::monotonicNs();
  auto* service = static_cast<Service*>(userData);
  if (std::strcmp(methodName, "SetString") == 0) {
    const gchar* value = nullptr;
    g_variant_get(parameters, "(&s&s)", nullptr, &value);
    ++service->writes;
    service->bytes += std::strlen(value);
    g_dbus_method_invocation_return_value(invocation, nullptr);
    // Printed after the answer, so the writer does not wait for the pipe.
    if (service->writes % service->markEvery == 0) {
      std::printf("write %llu %lld %llu\n", service->writes, arrived, service->bytes);
      std::fflush(stdout);
    }
    return;
  }
  if (std::strcmp(methodName, "SetInt") == 0) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
    return;
  }
  if (std::strcmp(methodName, "GetInt") == 0) {
    const gchar* property = nullptr;
    g_variant_get(parameters, "(&s)", &property);
    const auto found = service->ints.find(property);
    if (found != service->ints.end()) {
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", found->second));
      return;
    }
  }
  returnNoSuchProperty(invocation);
}

int usage() {
  std::fprintf(stderr,
               "usage: nyx-bench-service --name NAME [--int PROPERTY=VALUE]... "
               "[--mark-every N]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Service service;
  std::string name;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) {
      return usage();
    }
    const std::string value = argv[++i];
    if (arg == "--name") {
      name = value;
    } else if (arg == "--int") {
      const auto equals = value.find('=');
      if (equals == std::string::npos) {
        return usage();
      }
      service.ints[value.substr(0, equals)] = std::atoi(value.c_str() + equals + 1);
    } else if (arg == "--mark-every") {
      service.markEvery = std::strtoull(value.c_str(), nullptr, 10);
      if (service.markEvery == 0) {
        return usage();
      }
    } else {
      return usage();
    }
  }
  if (name.empty()) {
    return usage();
  }
  try {
    auto connection = nyxbench::connectBus();
    const GDBusInterfaceVTable vtable{handleCall, nullptr, nullptr, {}};
    nyxbench::exportHbus(connection.get(), &vtable, &service);
    nyxbench::ownName(connection.get(), name);
    service.loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quitLoop, service.loop);
    g_unix_signal_add(SIGINT, quitLoop, service.loop);
    std::printf("ready\n");
    std::fflush(stdout);
    g_main_loop_run(service.loop);
    g_main_loop_unref(service.loop);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nyx-bench-service: %s\n", e.what());
    return 1;
  }
  return 0;
}
