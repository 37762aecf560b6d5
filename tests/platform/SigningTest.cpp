// Request signing, checked against an independent HMAC-SHA256 computed by
// Python's hmac module from the same inputs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "libauth.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::milliseconds;

// Python prints hex(HMAC-SHA256(key, text)) with text given as arguments
// joined by '\n'; the body's own digest is computed there too.
std::string independentSignature(const std::string& key, const std::string& method,
                                 const std::string& target, const std::string& date,
                                 const std::string& customer, const std::string& body) {
  nyxtest::ChildProcess::Options options;
  options.argv = {"python3",
                  "-c",
                  "import hashlib, hmac, sys\n"
                  "key, method, target, date, customer, body = sys.argv[1:]\n"
                  "text = '\\n'.join([method, target, date, customer,\n"
                  "                   hashlib.sha256(body.encode()).hexdigest()])\n"
                  "print(hmac.new(key.encode(), text.encode(), hashlib.sha256).hexdigest())\n",
                  key,
                  method,
                  target,
                  date,
                  customer,
                  body};
  nyxtest::ChildProcess python(options);
  EXPECT_EQ(python.waitForExit(milliseconds(10000)), 0) << python.output();
  python.waitForLine("", milliseconds(1000));
  return python.lines().empty() ? "" : python.lines()[0];
}

std::map<std::string, std::string> headersOf(GHashTable* table) {
  std::map<std::string, std::string> headers;
  GHashTableIter iter;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&iter, table);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    headers[static_cast<const char*>(key)] = static_cast<const char*>(value);
  }
  return headers;
}

struct TargetCase {
  const char* url;
  const char* expected;  // nullptr: not an absolute URL
};

TEST(PathQueryFragmentTest, IsEverythingAfterTheAuthority) {
  const TargetCase cases[] = {
      {"https://h/a/b?x=1&y=2#frag", "/a/b?x=1&y=2#frag"},
      {"https://h:8443/a/b", "/a/b"},
      {"https://h", "/"},
      {"https://h/", "/"},
      {"https://h?a=1", "/?a=1"},
      {"https://h:8443?a=1", "/?a=1"},
      {"https://h#top", "/#top"},
      {"https://user:pw@h/p?q", "/p?q"},
      {"http://[::1]:8080/v1/messages?page=2", "/v1/messages?page=2"},
      {"/relative/path", nullptr},
      {"not a url", nullptr},
      {"", nullptr},
  };
  for (const auto& row : cases) {
    char* target = libauth_getPathQueryFragmentFromURL(row.url);
    EXPECT_STREQ(target, row.expected) << row.url;
    std::free(target);
  }
  EXPECT_EQ(libauth_getPathQueryFragmentFromURL(nullptr), nullptr);
}

struct SignCase {
  const char* what;
  const char* method;
  const char* target;
  std::string body;
  const char* customer;  // nullptr: no customer
};

TEST(ProxyHeadersTest, SignatureMatchesAnIndependentComputation) {
  nyxtest::NyxRoot root;
  root.writePlatformFile("device-serial", "SERIAL-0001\n");
  root.writePlatformFile("device-secret", "s3cret key\n");
  const SignCase cases[] = {
      {"GET without body or customer", "GET", "/v1/messages?page=1", "", nullptr},
      {"POST with body and customer", "POST", "/v1/register", "{\"a\":[1,2]}", "customer-7"},
      {"UTF-8 body", "POST", "/", "grüße", "c"},
  };
  for (const auto& row : cases) {
    GHashTable* table = nullptr;
    ASSERT_EQ(libauth_getProxyHeaders(&table, row.target, row.method, row.body.data(),
                                      row.body.size(), row.customer),
              0)
        << row.what;
    auto headers = headersOf(table);
    g_hash_table_destroy(table);

    EXPECT_EQ(headers["X-Device-Serial"], "SERIAL-0001") << row.what;
    const std::string date = headers["X-Device-Date"];
    EXPECT_TRUE(g_regex_match_simple("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$", date.c_str(),
                                     G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
        << date;
    EXPECT_EQ(headers.count("X-Device-Customer"), row.customer != nullptr ? 1u : 0u) << row.what;
    if (row.customer != nullptr) {
      EXPECT_EQ(headers["X-Device-Customer"], row.customer);
    }
    EXPECT_EQ(headers.size(), row.customer != nullptr ? 4u : 3u) << row.what;
    EXPECT_EQ(headers["X-Device-Signature"],
              independentSignature("s3cret key", row.method, row.target, date,
                                   row.customer != nullptr ? row.customer : "", row.body))
        << row.what;
  }
}

TEST(ProxyHeadersTest, MissingCredentialsGiveNonZeroStatus) {
  for (const char* missing : {"device-serial", "device-secret"}) {
    nyxtest::NyxRoot root;
    for (const char* file : {"device-serial", "device-secret"}) {
      if (std::string(file) != missing) {
        root.writePlatformFile(file, "value\n");
      }
    }
    GHashTable* table = nullptr;
    EXPECT_NE(libauth_getProxyHeaders(&table, "/", "GET", "", 0, nullptr), 0) << missing;
    EXPECT_EQ(table, nullptr) << missing;
  }
}

TEST(SignedDigestTest, IsHexHmacOfThePayloadOrNullWithoutSecret) {
  nyxtest::NyxRoot root;
  const std::string payload = "payload \x01\x02 bytes";
  EXPECT_EQ(libauth_getSignedDigest(reinterpret_cast<const unsigned char*>(payload.data()),
                                    payload.size(), "c"),
            nullptr);
  root.writePlatformFile("device-secret", "k\n");
  char* digest = libauth_getSignedDigest(reinterpret_cast<const unsigned char*>(payload.data()),
                                         payload.size(), "c");
  ASSERT_NE(digest, nullptr);
  // HMAC over the payload alone, computed by Python.
  nyxtest::ChildProcess::Options options;
  options.argv = {"python3", "-c",
                  "import hashlib, hmac, sys\n"
                  "print(hmac.new(b'k', sys.argv[1].encode(), hashlib.sha256).hexdigest())\n",
                  payload};
  nyxtest::ChildProcess python(options);
  ASSERT_EQ(python.waitForExit(milliseconds(10000)), 0);
  python.waitForLine("", milliseconds(1000));
  EXPECT_EQ(std::string(digest), python.lines().at(0));
  delete[] digest;
}

}  // namespace
