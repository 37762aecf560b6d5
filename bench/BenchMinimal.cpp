// nyx-bench-minimal: the least an idle nyxd can be.
//
//   nyx-bench-minimal [--name NAME] [--fetch URL]...
//                                          (default name cobalt.device.messaging)
//
// Linked with the libraries nyxd links, it does only what any such daemon
// must do before it waits: initialise libcurl, connect to the bus and own its
// name, and open the registration cache under $NYX_ROOT. Then it sends
// READY=1 over the notification protocol, as nyxd does when its start-up is
// over, and waits on a main loop until SIGTERM or SIGINT. Its start-up time
// and idle memory are the floors of nyxd's.
//
// With --fetch it first makes one GET of each URL, HTTPS trusting
// $NYX_ROOT/etc/nyx-host/tls/ca.pem, and gives freed memory back as nyxd does
// when idle. What the TLS libraries keep after their first handshake (the
// algorithms OpenSSL has loaded, some 300 kB) stays for the life of any
// process that used them; this is the floor of nyxd's memory after a TLS
// backlog.
#include <curl/curl.h>
#include <glib-unix.h>
#include <malloc.h>
#include <sqlite3.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchBus.h"

namespace {

std::string rootedPath(const std::string& path) {
  const char* root = std::getenv("NYX_ROOT");
  std::string rooted = (root != nullptr && *root != '\0') ? root : "/";
  if (rooted.back() != '/') {
    rooted += '/';
  }
  return rooted + path;
}

size_t discard(char* /*data*/, size_t size, size_t count, void* /*userData*/) {
  return size * count;
}

// One GET; any answer will do, a failed transfer throws.
void fetch(const std::string& url) {
  std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) {
    throw std::runtime_error("curl_easy_init failed");
  }
  const std::string ca = rootedPath("etc/nyx-host/tls/ca.pem");
  CURL* h = handle.get();
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(h, CURLOPT_CAINFO, ca.c_str());
  curl_easy_setopt(h, CURLOPT_CAPATH, nullptr);
  const CURLcode result = curl_easy_perform(h);
  if (result != CURLE_OK) {
    throw std::runtime_error("fetch " + url + ": " + curl_easy_strerror(result));
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string name = "cobalt.device.messaging";
  std::vector<std::string> urls;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc) {
      name = argv[++i];
    } else if (std::strcmp(argv[i], "--fetch") == 0 && i + 1 < argc) {
      urls.emplace_back(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: nyx-bench-minimal [--name NAME] [--fetch URL]...\n");
      return 2;
    }
  }
  sqlite3* db = nullptr;
  try {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("curl_global_init failed");
    }
    auto connection = nyxbench::connectBus();
    nyxbench::ownName(connection.get(), name);
    if (sqlite3_open_v2(rootedPath("var/local/nyx_registration_cache.db").c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite3_open_v2: ") + sqlite3_errmsg(db));
    }
    for (const auto& url : urls) {
      fetch(url);
    }
#ifdef __GLIBC__
    if (!urls.empty()) {
      malloc_trim(0);
    }
#endif
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quitLoop, loop);
    g_unix_signal_add(SIGINT, quitLoop, loop);
    sd_notify(0, "READY=1");
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
