// nyx-bench-floor: the least a poll cycle can cost on this machine.
//
//   nyx-bench-floor [--name NAME] [--log]   (default name bench.floor)
//
// It does the I/O of nyxd's poll cycle and nothing else: on a write of
// "wanRing" to NAME it reads "frameworkStarted" of com.corvid.shell, then
// fetches every page from the configured messages URL with a new curl easy
// handle per page, signed like the device signs, following "nextPage"; for
// each message of a page it writes "wisp_message" to the service named by the
// topic and "queueMessage" to com.corvid.outbox, with values byte for byte
// the size nyxd writes, one synchronous GDBus call each. It neither checks
// CRCs nor decodes payloads: that work is measured on its own (msg_cpu).
//
// Everything runs on the main loop's thread, which is where the method calls
// arrive: there is no hand-over between threads. HTTPS trust is the system
// store plus $NYX_ROOT/etc/nyx-host/tls/ca.pem, parsed once per process and
// shared by every handle.
//
// It tells the launcher what nyxd's daemon monitor tells systemd: READY=1
// once the name is owned, "STATUS=activities: 1" when a cycle is queued and
// "STATUS=activities: 0" when it has ended.
//
// With --log it also writes the lines nyxd must write in a cycle, the same
// texts with the same values, each to syslog (identity "NYX", LOG_LOCAL0) and
// to line-buffered standard output as nyxd's logger does: per cycle the
// nudge, the task and the wait, per page the request, per message the five
// lines of receiving, dispatching and purging it. So the floor with --log
// less the floor without is what logging costs by design, and nyxd less the
// floor with --log is what nyxd adds.
#include <curl/curl.h>
#include <glib-unix.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchBus.h"

namespace {

const char* const kShell = "com.corvid.shell";
const char* const kOutbox = "com.corvid.outbox";
const int kCallTimeoutMs = 10000;

std::string hostFile(const std::string& name) {
  const char* root = std::getenv("NYX_ROOT");
  std::string path = (root != nullptr && *root != '\0') ? root : "/";
  if (path.back() != '/') {
    path += '/';
  }
  return path + "etc/nyx-host/" + name;
}

std::string firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

std::string trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return "";
  }
  return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

std::string configValue(const std::string& key) {
  std::ifstream in(hostFile("dynconfig"));
  std::string line, value;
  while (std::getline(in, line)) {
    const auto equals = line.find('=');
    const std::string name = trim(line.substr(0, equals));
    if (equals != std::string::npos && !name.empty() && name[0] != '#' && name == key) {
      value = trim(line.substr(equals + 1));
    }
  }
  return value;
}

std::string hex(const unsigned char* bytes, size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2);
  for (size_t i = 0; i < length; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string base64(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(written));
  return text;
}

// The length of the bytes that a base64 text without line ends decodes to.
int decodedLength(const std::string& text) {
  size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
    ++padding;
  }
  return static_cast<int>(text.size() / 4 * 3 - padding);
}

bool gLogging = false;

// One info line as nyxd's logger writes it: formatted into a stack buffer of
// 1024 bytes, then to syslog and to standard output.
__attribute__((format(printf, 2, 3))) void logInfo(const char* tag, const char* format, ...) {
  if (!gLogging) {
    return;
  }
  char message[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  syslog(LOG_INFO, "I %s: %s", tag, message);
  std::printf("I %s: %s\n", tag, message);
}

// The value of "key":"..." at or after from, or "" when absent. The server's
// ids, topics, payloads and URLs carry no escapes.
std::string stringMember(const std::string& body, const char* key, size_t from, size_t* end) {
  const std::string marker = std::string("\"") + key + "\":\"";
  const auto start = body.find(marker, from);
  if (start == std::string::npos) {
    return "";
  }
  const auto valueStart = start + marker.size();
  const auto valueEnd = body.find('"', valueStart);
  if (valueEnd == std::string::npos) {
    return "";
  }
  if (end != nullptr) {
    *end = valueEnd;
  }
  return body.substr(valueStart, valueEnd - valueStart);
}

struct Credentials {
  std::string serial;
  std::string secret;
  std::string customer;
};

class Floor {
 public:
  Floor() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  ~Floor() {
    X509_STORE_free(store_);
    curl_global_cleanup();
  }
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  void attach(GDBusConnection* connection) { connection_ = connection; }

  // One poll cycle; failures end it with a line on standard error.
  void runCycle() {
    logInfo("Main", "Processing task.");
    try {
      fetchAll();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "nyx-bench-floor: cycle failed: %s\n", e.what());
    }
    logInfo("Main", "Waiting for tasks.");
    sd_notify(0, "STATUS=activities: 0");
  }

  // Whether the application framework is up, as nyxd asks before it queues
  // a cycle.
  bool frameworkStarted() {
    try {
      return getInt(kShell, "frameworkStarted") == 1;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "nyx-bench-floor: %s\n", e.what());
      return false;
    }
  }

 private:
  void fetchAll() {
    const Credentials credentials{firstLine(hostFile("device-serial")),
                                  firstLine(hostFile("device-secret")),
                                  firstLine(hostFile("customer"))};
    std::string url = configValue("url.devicemessaging.getmessages");
    if (url.empty()) {
      throw std::runtime_error("no url.devicemessaging.getmessages in dynconfig");
    }
    while (!url.empty()) {
      logInfo("HttpClient", "Making request to %s", url.c_str());
      const std::string body = fetch(url, credentials);
      size_t at = body.find("\"messages\":[");
      while (at != std::string::npos) {
        at = body.find("{\"message\":", at);
        if (at == std::string::npos) {
          break;
        }
        size_t end = at;
        const std::string id = stringMember(body, "id", at, &end);
        const std::string topic = stringMember(body, "topic", end, &end);
        const std::string payload = stringMember(body, "payload", end, &end);
        at = end;
        deliver(id, topic, payload);
      }
      url = stringMember(body, "nextPage", 0, nullptr);
    }
  }

  // The same two writes nyxd makes for a plain message delivered at once.
  void deliver(const std::string& id, const std::string& topic, const std::string& payload) {
    if (gLogging) {
      const int bytes = decodedLength(payload);
      logInfo("WispMessageFetcher",
              "Received message. MessageID: %s MessageTopic: %s Payload: %d bytes", id.c_str(),
              topic.c_str(), bytes);
      logInfo("WispMessageDispatcher",
              "Dispatching WISP message. ID: %s Topic: %s Payload: %d bytes", id.c_str(),
              topic.c_str(), bytes);
    }
    setString(topic.c_str(), "wisp_message",
              "{\"id\":\"" + id + "\",\"payload\":\"" + payload + "\"}");
    logInfo("WispMessageDispatcher", "Dispatched WISP message. ID: %s Topic: %s", id.c_str(),
            topic.c_str());
    const std::string response =
        "{\"response\":{\"id\":\"" + id + "\",\"status\":1,\"retry\":false}}";
    logInfo("WispMessagePurger", "Sending purge message request. ID: %s", id.c_str());
    setString(kOutbox, "queueMessage",
              "{\"topic\":\"cobalt.messaging.response\",\"payload\":\"" + base64(response) +
                  "\",\"gunzip\":false,\"options\":{\"flushTime\":1}}");
    logInfo("WispMessagePurger", "Sent purge message request. ID: %s", id.c_str());
  }

  int getInt(const char* service, const char* property) {
    GError* error = nullptr;
    nyxbench::GVariantPtr reply(g_dbus_connection_call_sync(
        connection_, service, nyxbench::kHbusObject, nyxbench::kHbusInterface, "GetInt",
        g_variant_new("(s)", property), G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NONE,
        kCallTimeoutMs, nullptr, &error));
    nyxbench::checkGError("GetInt", error);
    gint32 value = 0;
    g_variant_get(reply.get(), "(i)", &value);
    return value;
  }

  void setString(const char* service, const char* property, const std::string& value) {
    GError* error = nullptr;
    nyxbench::GVariantPtr reply(g_dbus_connection_call_sync(
        connection_, service, nyxbench::kHbusObject, nyxbench::kHbusInterface, "SetString",
        g_variant_new("(ss)", property, value.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE,
        kCallTimeoutMs, nullptr, &error));
    nyxbench::checkGError("SetString", error);
  }

  static size_t collect(char* data, size_t size, size_t count, void* userData) {
    static_cast<std::string*>(userData)->append(data, size * count);
    return size * count;
  }

  static CURLcode installStore(CURL* /*curl*/, void* sslCtx, void* userData) {
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(sslCtx), static_cast<X509_STORE*>(userData));
    return CURLE_OK;
  }

  X509_STORE* trustStore() {
    if (store_ == nullptr) {
      X509_STORE* store = X509_STORE_new();
      if (store == nullptr || X509_STORE_set_default_paths(store) != 1) {
        X509_STORE_free(store);
        throw std::runtime_error("cannot load the system trust store");
      }
      const std::string ca = hostFile("tls/ca.pem");
      if (std::ifstream(ca).good() && X509_STORE_load_file(store, ca.c_str()) != 1) {
        X509_STORE_free(store);
        throw std::runtime_error("cannot load " + ca);
      }
      store_ = store;
    }
    return store_;
  }

  std::vector<std::string> signedHeaders(const std::string& url, const Credentials& credentials) {
    char date[32];
    const std::time_t now = std::time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", &utc);
    const auto authority = url.find("://");
    const auto slash = url.find('/', authority == std::string::npos ? 0 : authority + 3);
    const std::string target = slash == std::string::npos ? "/" : url.substr(slash);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    EVP_Digest("", 0, digest, &digestLength, EVP_sha256(), nullptr);
    const std::string canonical = "GET\n" + target + "\n" + date + "\n" + credentials.customer +
                                  "\n" + hex(digest, digestLength);
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int macLength = 0;
    HMAC(EVP_sha256(), credentials.secret.data(), static_cast<int>(credentials.secret.size()),
         reinterpret_cast<const unsigned char*>(canonical.data()), canonical.size(), mac,
         &macLength);
    std::vector<std::string> headers{"accept: application/json", "x-zvo-reason: NUDGE",
                                     "X-Device-Serial: " + credentials.serial,
                                     std::string("X-Device-Date: ") + date};
    if (!credentials.customer.empty()) {
      headers.push_back("X-Device-Customer: " + credentials.customer);
    }
    headers.push_back("X-Device-Signature: " + hex(mac, macLength));
    return headers;
  }

  std::string fetch(const std::string& url, const Credentials& credentials) {
    std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
    if (!handle) {
      throw std::runtime_error("curl_easy_init failed");
    }
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> list(nullptr, curl_slist_free_all);
    for (const auto& header : signedHeaders(url, credentials)) {
      curl_slist* longer = curl_slist_append(list.get(), header.c_str());
      if (longer == nullptr) {
        throw std::runtime_error("curl_slist_append failed");
      }
      list.release();
      list.reset(longer);
    }
    std::string body;
    CURL* h = handle.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, list.get());
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
    if (url.compare(0, 8, "https://") == 0) {
      // No bundle per handle: the parsed store is installed instead.
      curl_easy_setopt(h, CURLOPT_CAINFO, nullptr);
      curl_easy_setopt(h, CURLOPT_CAPATH, nullptr);
      curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, installStore);
      curl_easy_setopt(h, CURLOPT_SSL_CTX_DATA, trustStore());
    }
    const CURLcode result = curl_easy_perform(h);
    if (result != CURLE_OK) {
      throw std::runtime_error(std::string("fetch ") + url + ": " + curl_easy_strerror(result));
    }
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
      throw std::runtime_error("fetch " + url + ": HTTP " + std::to_string(status) + ": " + body);
    }
    return body;
  }

  GDBusConnection* connection_ = nullptr;
  X509_STORE* store_ = nullptr;
};

gboolean runCycle(gpointer userData) {
  static_cast<Floor*>(userData)->runCycle();
  return G_SOURCE_REMOVE;
}

void handleCall(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                gpointer userData) {
  if (std::strcmp(methodName, "SetInt") == 0) {
    const gchar* property = nullptr;
    gint32 value = 0;
    g_variant_get(parameters, "(&si)", &property, &value);
    if (std::strcmp(property, "wanRing") == 0) {
      // Answer first, as nyxd answers once the task is queued.
      auto* floor = static_cast<Floor*>(userData);
      if (floor->frameworkStarted()) {
        logInfo("Main", "Received NUDGE event: wanRing.");
        sd_notify(0, "STATUS=activities: 1");
        g_idle_add(runCycle, floor);
      }
      g_dbus_method_invocation_return_value(invocation, nullptr);
      return;
    }
  }
  returnNoSuchProperty(invocation);
}

}  // namespace

int main(int argc, char** argv) {
  std::string name = "bench.floor";
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc) {
      name = argv[++i];
    } else if (std::strcmp(argv[i], "--log") == 0) {
      gLogging = true;
    } else {
      std::fprintf(stderr, "usage: nyx-bench-floor [--name NAME] [--log]\n");
      return 2;
    }
  }
  // As nyxd: one line per write, also into a pipe, and the same syslog.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (gLogging) {
    openlog("NYX", LOG_PID | LOG_CONS, LOG_LOCAL0);
  }
  try {
    Floor floor;
    auto connection = nyxbench::connectBus();
    floor.attach(connection.get());
    const GDBusInterfaceVTable vtable{handleCall, nullptr, nullptr, {}};
    nyxbench::exportHbus(connection.get(), &vtable, &floor);
    nyxbench::ownName(connection.get(), name);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quitLoop, loop);
    g_unix_signal_add(SIGINT, quitLoop, loop);
    logInfo("Main", "Waiting for tasks.");
    sd_notify(0, "READY=1");
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nyx-bench-floor: %s\n", e.what());
    return 1;
  }
  return 0;
}
