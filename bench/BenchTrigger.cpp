// nyx-bench-trigger: writes integer properties of bus services on request,
// timing each write with the clock the services report in.
//
// Reads lines "setint SERVICE PROPERTY VALUE" from standard input. For each
// it makes the synchronous SetInt call on SERVICE's /hbus and prints
// "done START_NS END_NS ok" (or "done START_NS END_NS error TEXT"), START_NS
// being taken just before the call leaves. It connects once, before the first
// line, so that no measured write pays for the connection. Ends at the end of
// its input.
#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "bench/BenchBus.h"

int main() {
  try {
    auto connection = nyxbench::connectBus();
    std::printf("ready\n");
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
      std::istringstream words(line);
      std::string verb, service, property;
      int value = 0;
      if (!(words >> verb >> service >> property >> value) || verb != "setint") {
        std::printf("done 0 0 error bad command\n");
        std::fflush(stdout);
        continue;
      }
      GError* error = nullptr;
      const long long start = nyxbench::monotonicNs();
      GVariant* reply = g_dbus_connection_call_sync(
          connection.get(), service.c_str(), nyxbench::kHbusObject, nyxbench::kHbusInterface,
          "SetInt", g_variant_new("(si)", property.c_str(), value), nullptr, G_DBUS_CALL_FLAGS_NONE,
          -1, nullptr, &error);
      const long long end = nyxbench::monotonicNs();
      if (reply != nullptr) {
        g_variant_unref(reply);
      }
      if (error != nullptr) {
        nyxbench::GErrorPtr owned(error);
        std::printf("done %lld %lld error %s\n", start, end, owned->message);
      } else {
        std::printf("done %lld %lld ok\n", start, end);
      }
      std::fflush(stdout);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nyx-bench-trigger: %s\n", e.what());
    return 1;
  }
  return 0;
}
