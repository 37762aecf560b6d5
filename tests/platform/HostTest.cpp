// The host platform against real components: files under a temporary NYX_ROOT,
// the tools' signature and a notification socket. Its TLS callback is tried
// through the device transport in tests/http.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "conn.h"
#include "daemon_monitor.h"
#include "dynconfig.h"
#include "libauth.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::ChildProcess;
using nyxtest::milliseconds;

std::string take(char* text) {
  std::string copy(text);
  std::free(text);
  return copy;
}

// What the platform reads from one of its files: a dynconfig value, the
// customer, or "INTERFACE HOST:PORT" from the network file.
std::optional<std::string> lookUp(const std::string& file, const char* key) {
  char* text = nullptr;
  if (file == "dynconfig") {
    return getDynamicConfigValue(key, &text) == 0 ? std::optional(take(text)) : std::nullopt;
  }
  if (file == "customer") {
    text = libauth_getActiveCustomerID();
    return text != nullptr ? std::optional(take(text)) : std::nullopt;
  }
  std::string network = std::to_string(ConActiveInterface());
  if (ConProxyData* proxy = ConGetNetworkProxy()) {
    network += " " + take(proxy->host) + ":" + (proxy->port != nullptr ? take(proxy->port) : "-");
    std::free(proxy->reserved);
    std::free(proxy);
  }
  return network;
}

// One root for all rows, so each row also shows that the file is read anew.
TEST(DeviceFilesTest, AreParsedAndReadAnewAtEveryCall) {
  nyxtest::NyxRoot root;
  const struct {
    const char *file, *content;  // content nullptr: no file
    std::optional<std::string> expected;
  } cases[] = {
      {"dynconfig", "  url \t=  https://h/p?a=1&b=2  \r\n", "https://h/p?a=1&b=2"},
      {"dynconfig", "url=one\n# url=x\n\n  \nurl=two", "two"},
      {"dynconfig", "#url=one\nurl\nurl2=3\n", std::nullopt},
      {"dynconfig", "url=\n", ""},
      {"dynconfig", nullptr, std::nullopt},
      {"network", nullptr, "1"},
      {"network", "interface=2\nproxy=proxy.lan:3128\n", "2 proxy.lan:3128"},
      {"network", "proxy=[::1]:8080\ninterface=wifi\n", "1 [::1]:8080"},
      {"network", "proxy=[::1]\n", "1 [::1]:-"},
      {"customer", " cust-1 \nother\n", "cust-1"},
      {"customer", "\ncust-1\n", std::nullopt},
      {"customer", nullptr, std::nullopt},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.file) + ": " + (row.content != nullptr ? row.content : "none"));
    std::remove(root.file("etc/nyx-host/" + std::string(row.file)).c_str());
    if (row.content != nullptr) {
      root.writePlatformFile(row.file, row.content);
    }
    EXPECT_EQ(lookUp(row.file, "url"), row.expected);
  }
}

// The signature as the tools compute it, then Python's HMAC-SHA256 of the body.
std::vector<std::string> pythonHmacs(const std::vector<std::string>& inputs) {
  ChildProcess::Options options;
  options.argv = {"python3", "-c",
                  "import hashlib, hmac, os, sys\n"
                  "sys.path.insert(0, sys.argv[1])\n"
                  "from nyxtools.wire import signature\n"
                  "key, method, target, date, customer, body = sys.argv[2:]\n"
                  "body = os.fsencode(body)\n"
                  "print(signature(key, method, target, date, customer, body))\n"
                  "print(hmac.new(key.encode(), body, hashlib.sha256).hexdigest())\n",
                  nyxtest::sourceDir() + "/tools"};
  options.argv.insert(options.argv.end(), inputs.begin(), inputs.end());
  ChildProcess python(options);
  EXPECT_EQ(python.waitForExit(milliseconds(10000)), 0) << python.output();
  python.waitForOutputClosed(milliseconds(1000));
  return python.lines();
}

TEST(SigningTest, HeadersCarryAnHmacThatPythonComputesAlike) {
  nyxtest::NyxRoot root;
  GHashTable* table = nullptr;
  EXPECT_EQ(libauth_getSignedDigest(reinterpret_cast<const unsigned char*>("x"), 1, "c"), nullptr);
  root.writePlatformFile("device-serial", "SERIAL-0001\n");
  root.writePlatformFile("device-secret", "s3cret key\n");
  const struct {
    const char *method, *url, *target, *body, *customer;  // target nullptr: not an absolute URL
  } cases[] = {
      {"GET", "https://h:8443/v1/messages?page=1", "/v1/messages?page=1", "", nullptr},
      {"POST", "https://u:pw@h/a/b?x=1&y=2#f", "/a/b?x=1&y=2#f", "{\"a\":[1,2]}", "cust-7"},
      {"POST", "http://[::1]:8080/v1/register", "/v1/register", "grüße \x01", "c"},
      {"GET", "https://h:8443?a=1", "/?a=1", "", "c"},
      {"GET", "/relative/path", nullptr, "", nullptr},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.url);
    char* target = libauth_getPathQueryFragmentFromURL(row.url);
    EXPECT_STREQ(target, row.target);
    if (target == nullptr || row.target == nullptr) {
      continue;
    }
    const std::string body = row.body;
    ASSERT_EQ(libauth_getProxyHeaders(&table, take(target).c_str(), row.method, body.data(),
                                      body.size(), row.customer),
              0);
    auto header = [table](const char* name) {
      const auto* value = static_cast<const char*>(g_hash_table_lookup(table, name));
      return std::string(value != nullptr ? value : "(none)");
    };
    const std::string date = header("X-Device-Date");
    EXPECT_TRUE(g_regex_match_simple("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$", date.c_str(),
                                     G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
        << date;
    EXPECT_EQ(header("X-Device-Serial"), "SERIAL-0001");
    EXPECT_EQ(header("X-Device-Customer"), row.customer != nullptr ? row.customer : "(none)");
    EXPECT_EQ(g_hash_table_size(table), row.customer != nullptr ? 4u : 3u);
    char* digest = libauth_getSignedDigest(reinterpret_cast<const unsigned char*>(body.data()),
                                           body.size(), "c");
    ASSERT_NE(digest, nullptr);
    const std::vector<std::string> ours = {header("X-Device-Signature"), digest};
    delete[] digest;
    g_hash_table_destroy(table);
    EXPECT_EQ(pythonHmacs({"s3cret key", row.method, row.target, date,
                           row.customer != nullptr ? row.customer : "", body}),
              ours);
  }
}

TEST(DaemonMonitorTest, SendsStatusAndReadyOnceToTheNotifySocket) {
  nyxtest::TempDir dir;
  const std::string path = dir.path() + "/notify";
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  nyxtest::ScopedEnv notifySocket("NOTIFY_SOCKET", path);

  initialize("cobalt.device.messaging", 60);
  incrementProcessActivity();  // a task created during start-up
  decrementProcessActivity();
  decrementProcessActivity();  // start-up over
  incrementProcessActivity();  // later tasks never repeat READY
  decrementProcessActivity();

  std::vector<std::string> received;
  char buffer[4096];
  pollfd ready{fd, POLLIN, 0};
  while (poll(&ready, 1, 500) == 1) {
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    received.emplace_back(buffer, got > 0 ? got : 0);
  }
  close(fd);
  EXPECT_EQ(received,
            (std::vector<std::string>{"STATUS=activities: 1", "STATUS=activities: 2",
                                      "STATUS=activities: 1", "READY=1\nSTATUS=activities: 0",
                                      "STATUS=activities: 1", "STATUS=activities: 0"}));
}

}  // namespace
