// nyx-bench-minimal: the least an idle nyxd can be.
//
//   nyx-bench-minimal [--name NAME]        (default cobalt.device.messaging)
//
// Linked with the libraries nyxd links, it does only what any such daemon
// must do before it waits: initialise libcurl, connect to the bus and own its
// name, and open the registration cache under $NYX_ROOT. Then it prints
// "Waiting for tasks." and waits on a main loop until SIGTERM or SIGINT. Its
// start-up time and idle memory are the floors of nyxd's.
#include <curl/curl.h>
#include <glib-unix.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "bench/BenchBus.h"

namespace {

gboolean quit(gpointer userData) {
  g_main_loop_quit(static_cast<GMainLoop*>(userData));
  return G_SOURCE_REMOVE;
}

std::string cachePath() {
  const char* root = std::getenv("NYX_ROOT");
  std::string path = (root != nullptr && *root != '\0') ? root : "/";
  if (path.back() != '/') {
    path += '/';
  }
  return path + "var/local/nyx_registration_cache.db";
}

}  // namespace

int main(int argc, char** argv) {
  std::string name = "cobalt.device.messaging";
  if (argc == 3 && std::strcmp(argv[1], "--name") == 0) {
    name = argv[2];
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: nyx-bench-minimal [--name NAME]\n");
    return 2;
  }
  sqlite3* db = nullptr;
  try {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("curl_global_init failed");
    }
    auto connection = nyxbench::connectBus();
    nyxbench::ownName(connection.get(), name);
    if (sqlite3_open_v2(cachePath().c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite3_open_v2: ") + sqlite3_errmsg(db));
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_unix_signal_add(SIGINT, quit, loop);
    std::printf("Waiting for tasks.\n");
    std::fflush(stdout);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nyx-bench-minimal: %s\n", e.what());
    sqlite3_close(db);
    return 1;
  }
  sqlite3_close(db);
  curl_global_cleanup();
  return 0;
}
