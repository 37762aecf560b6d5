// The device files under $NYX_ROOT/etc/nyx-host: dynamic configuration, the
// network file and the active customer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "conn.h"
#include "dynconfig.h"
#include "libauth.h"
#include "tests/support/TestSupport.h"

namespace {

std::optional<std::string> configValue(const char* key) {
  char* value = nullptr;
  if (getDynamicConfigValue(key, &value) != 0) {
    EXPECT_EQ(value, nullptr) << "value left untouched on failure";
    return std::nullopt;
  }
  std::string copy(value);
  std::free(value);
  return copy;
}

struct ConfigCase {
  const char* what;
  const char* content;  // nullptr: no file
  const char* key;
  std::optional<std::string> expected;
};

TEST(DynConfigTest, LooksKeysUpLineByLine) {
  const ConfigCase cases[] = {
      {"plain", "url=https://a\n", "url", "https://a"},
      {"white space trimmed", "  url \t=  https://a  \r\n", "url", "https://a"},
      {"later line wins", "url=one\nurl=two\n", "url", "two"},
      {"'=' inside the value", "url=https://h/p?a=1&b=2\n", "url", "https://h/p?a=1&b=2"},
      {"comment skipped", "#url=one\n", "url", std::nullopt},
      {"indented comment skipped", "  # url=one\nother=1\n", "url", std::nullopt},
      {"blank lines and no final newline", "\n\n  \nurl=x", "url", "x"},
      {"empty value is a value", "url=\n", "url", ""},
      {"line without '='", "url\n", "url", std::nullopt},
      {"missing key", "other=1\n", "url", std::nullopt},
      {"missing file", nullptr, "url", std::nullopt},
  };
  for (const auto& row : cases) {
    nyxtest::NyxRoot root;
    if (row.content != nullptr) {
      root.writePlatformFile("dynconfig", row.content);
    }
    EXPECT_EQ(configValue(row.key), row.expected) << row.what;
  }
  EXPECT_NE(getDynamicConfigValue("url", nullptr), 0);
}

TEST(DynConfigTest, ChangedFileTakesEffectAtTheNextCall) {
  nyxtest::NyxRoot root;
  root.writePlatformFile("dynconfig", "url=first\n");
  EXPECT_EQ(configValue("url"), "first");
  root.writePlatformFile("dynconfig", "url=second\n");
  EXPECT_EQ(configValue("url"), "second");
  std::remove(root.file("etc/nyx-host/dynconfig").c_str());
  EXPECT_EQ(configValue("url"), std::nullopt);
}

struct NetworkCase {
  const char* what;
  const char* content;  // nullptr: no file
  int interface;
  bool hasProxy;
  const char* host;
  const char* port;  // nullptr: the record's port is NULL
};

TEST(ConnectionTest, ReadsInterfaceAndProxyFromTheNetworkFile) {
  const NetworkCase cases[] = {
      {"missing file", nullptr, 1, false, nullptr, nullptr},
      {"proxied", "interface=2\nproxy=proxy.lan:3128\n", 2, true, "proxy.lan", "3128"},
      {"no proxy line", "interface=2\n", 2, false, nullptr, nullptr},
      {"proxy without a port", "proxy=proxy.lan\n", 1, true, "proxy.lan", nullptr},
      {"IPv6 host split at the last colon", "proxy=[::1]:8080\n", 1, true, "[::1]", "8080"},
      {"IPv6 host without a port", "proxy=[::1]\n", 1, true, "[::1]", nullptr},
      {"empty port", "proxy=proxy.lan:\n", 1, true, "proxy.lan", nullptr},
      {"interface not a number", "interface=wifi\n", 1, false, nullptr, nullptr},
  };
  for (const auto& row : cases) {
    nyxtest::NyxRoot root;
    if (row.content != nullptr) {
      root.writePlatformFile("network", row.content);
    }
    EXPECT_EQ(ConActiveInterface(), row.interface) << row.what;
    ConProxyData* proxy = ConGetNetworkProxy();
    ASSERT_EQ(proxy != nullptr, row.hasProxy) << row.what;
    if (proxy == nullptr) {
      continue;
    }
    EXPECT_STREQ(proxy->host, row.host) << row.what;
    EXPECT_STREQ(proxy->port, row.port) << row.what;
    EXPECT_EQ(proxy->reserved, nullptr) << row.what;
    std::free(proxy->host);
    std::free(proxy->port);
    std::free(proxy->reserved);
    std::free(proxy);
  }
}

struct CustomerCase {
  const char* what;
  const char* content;  // nullptr: no file
  const char* expected;
};

TEST(ActiveCustomerTest, IsTheFirstLineOfTheCustomerFile) {
  const CustomerCase cases[] = {
      {"one line", "customer.A1\n", "customer.A1"},
      {"first of several, trimmed", " cust-1 \nother\n", "cust-1"},
      {"empty first line", "\ncust-1\n", nullptr},
      {"empty file", "", nullptr},
      {"missing file", nullptr, nullptr},
  };
  for (const auto& row : cases) {
    nyxtest::NyxRoot root;
    if (row.content != nullptr) {
      root.writePlatformFile("customer", row.content);
    }
    char* customer = libauth_getActiveCustomerID();
    EXPECT_STREQ(customer, row.expected) << row.what;
    std::free(customer);
  }
}

}  // namespace
