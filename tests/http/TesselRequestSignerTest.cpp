// Request signing with the host platform's device credentials, verified by
// the local server with its own HMAC computation.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cctype>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "http/TesselCurlHttpClient.h"
#include "http/TesselRequestSigner.h"
#include "tests/support/LocalHttpServer.h"

namespace {

using nyxtest::HttpAnswer;
using nyxtest::LocalHttpServer;

const char kSerial[] = "G090LF1234567890";
const char kSecret[] = "device-secret-for-tests";

std::string hex(const unsigned char* bytes, unsigned int length) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 15];
  }
  return text;
}

std::string hmacHex(const std::string& key, const std::string& data) {
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac, &length);
  return hex(mac, length);
}

std::string sha256Hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
  return hex(digest, length);
}

// "YYYY-MM-DDTHH:MM:SSZ"; a digit wherever the pattern has a 9.
bool isSigningTime(const std::string& text) {
  const std::string pattern = "9999-99-99T99:99:99Z";
  if (text.size() != pattern.size()) {
    return false;
  }
  for (size_t i = 0; i < text.size(); ++i) {
    if (pattern[i] == '9' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != pattern[i]) {
      return false;
    }
  }
  return true;
}

// "Request Signing Failure. StatusCode: N DirectedId: id" with N a non-zero
// decimal status.
bool isSigningFailure(const std::string& message, const std::string& directedId) {
  const std::string prefix = "Request Signing Failure. StatusCode: ";
  const std::string suffix = " DirectedId: " + directedId;
  if (message.size() < prefix.size() + suffix.size() ||
      message.compare(0, prefix.size(), prefix) != 0 ||
      message.compare(message.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return false;
  }
  const std::string status =
      message.substr(prefix.size(), message.size() - prefix.size() - suffix.size());
  char* end = nullptr;
  const long value = strtol(status.c_str(), &end, 10);
  return !status.empty() && *end == '\0' && value != 0;
}

class TesselRequestSignerTest : public testing::Test {
 protected:
  void installCredentials(bool serial, bool secret) const {
    if (serial) {
      root_.writePlatformFile("device-serial", std::string(kSerial) + "\n");
    }
    if (secret) {
      root_.writePlatformFile("device-secret", std::string(kSecret) + "\n");
    }
    root_.writePlatformFile("customer", "amzn1.account.ACTIVE\n");
  }
  LocalHttpServer::Options checkingSignatures() const {
    LocalHttpServer::Options options;
    options.signingSecret = kSecret;
    return options;
  }

  nyxtest::NyxRoot root_;
};

TEST_F(TesselRequestSignerTest, SignedRequestsVerifyOnTheServer) {
  installCredentials(true, true);
  HttpAnswer ok(200);
  ok.repeat = true;
  LocalHttpServer server({ok}, checkingSignatures());
  const std::string base = server.url("");
  struct Case {
    const char* name;
    std::string directedId;
    const RequestMethod& method;
    std::string url;
    std::string body;
    std::string target;
  };
  const Case cases[] = {
      {"POST with a body and a query", "amzn1.account.A", RequestMethod::POST,
       base + "/devicemessaging/register?app=x&v=2", "{\"senders\":[\"a\"]}",
       "/devicemessaging/register?app=x&v=2"},
      {"GET without customer", "", RequestMethod::GET, base + "/devicemessaging/messages", "",
       "/devicemessaging/messages"},
      {"URL without a path", "amzn1.account.A", RequestMethod::GET, base + "?page=2", "",
       "/?page=2"},
      {"body with zero bytes", "amzn1.account.B", RequestMethod::POST, base + "/ack",
       std::string("\0\x01\xff", 3), "/ack"},
  };
  TesselCurlHttpClient client;
  for (const auto& c : cases) {
    TesselRequestSigner signer(c.directedId);
    WebRequest request;
    request.setUrl(c.url);
    request.setMethod(c.method);
    request.setBody(c.body);
    signer.sign(request);
    client.perform(request);

    const auto seen = server.requests().back();
    EXPECT_EQ(seen.target, c.target) << c.name;
    EXPECT_EQ(seen.signature, "valid") << c.name;
    EXPECT_EQ(seen.header("X-Device-Serial"), kSerial) << c.name;
    EXPECT_EQ(seen.hasHeader("X-Device-Customer"), !c.directedId.empty()) << c.name;
    EXPECT_EQ(seen.header("X-Device-Customer"), c.directedId) << c.name;
    EXPECT_TRUE(isSigningTime(seen.header("X-Device-Date"))) << c.name;
  }
}

TEST_F(TesselRequestSignerTest, SignedPostReachesTheServerByteForByte) {
  installCredentials(true, true);
  LocalHttpServer server({HttpAnswer(200)}, checkingSignatures());
  WebRequest request;
  request.setUrl(server.url("/devicemessaging/register?app=x"));
  request.setMethod(RequestMethod::POST);
  request.setHeader("Content-Type", "application/json");
  request.setBody("{\"app\":\"x\"}");
  TesselRequestSigner("amzn1.account.A").sign(request);
  TesselCurlHttpClient().perform(request);

  const auto seen = server.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].target, "/devicemessaging/register?app=x");
  const std::string date = request.getHeaders().at("X-Device-Date");
  const std::string canonical = "POST\n/devicemessaging/register?app=x\n" + date +
                                "\namzn1.account.A\n" + sha256Hex("{\"app\":\"x\"}");
  EXPECT_EQ(request.getHeaders().at("X-Device-Signature"), hmacHex(kSecret, canonical));
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"Host", "127.0.0.1:" + std::to_string(server.port())},
      {"Accept", "*/*"},
      {"Content-Type", "application/json"},
      {"X-Device-Customer", "amzn1.account.A"},
      {"X-Device-Date", date},
      {"X-Device-Serial", kSerial},
      {"X-Device-Signature", request.getHeaders().at("X-Device-Signature")},
      {"Content-Length", "11"},
  };
  EXPECT_EQ(seen[0].headers, expected);
  EXPECT_EQ(seen[0].body, "{\"app\":\"x\"}");
  EXPECT_EQ(seen[0].signature, "valid");
}

TEST_F(TesselRequestSignerTest, ChangingASignedPartAfterSigningFailsVerification) {
  installCredentials(true, true);
  HttpAnswer ok(200);
  ok.repeat = true;
  LocalHttpServer server({ok}, checkingSignatures());
  struct Case {
    const char* name;
    void (*change)(WebRequest&, const LocalHttpServer&);
  };
  const Case cases[] = {
      {"body", [](WebRequest& r, const LocalHttpServer&) { r.setBody("{\"app\":\"y\"}"); }},
      {"query", [](WebRequest& r, const LocalHttpServer& s) { r.setUrl(s.url("/r?app=y")); }},
      {"method", [](WebRequest& r, const LocalHttpServer&) { r.setMethod(RequestMethod::GET); }},
  };
  for (const auto& c : cases) {
    WebRequest request;
    request.setUrl(server.url("/r?app=x"));
    request.setMethod(RequestMethod::POST);
    request.setBody("{\"app\":\"x\"}");
    TesselRequestSigner("amzn1.account.A").sign(request);
    c.change(request, server);
    TesselCurlHttpClient().perform(request);
    EXPECT_EQ(server.requests().back().signature, "invalid") << c.name;
  }
}

TEST_F(TesselRequestSignerTest, MissingCredentialsFailSigningAndNothingIsSent) {
  LocalHttpServer server({HttpAnswer(200)});
  struct Case {
    const char* name;
    bool serial;
    bool secret;
    std::string directedId;
  };
  const Case cases[] = {
      {"no secret", true, false, "amzn1.account.A"},
      {"no serial", false, true, "amzn1.account.A"},
      {"no secret, no customer", true, false, ""},
  };
  for (const auto& c : cases) {
    nyxtest::NyxRoot root;
    if (c.serial) {
      root.writePlatformFile("device-serial", std::string(kSerial) + "\n");
    }
    if (c.secret) {
      root.writePlatformFile("device-secret", std::string(kSecret) + "\n");
    }
    WebRequest request;
    request.setUrl(server.url("/devicemessaging/register"));
    request.setHeader("Content-Type", "application/json");
    const WebRequest before(request);
    try {
      // As a request builder does: sign, then send.
      TesselRequestSigner(c.directedId).sign(request);
      TesselCurlHttpClient().perform(request);
      ADD_FAILURE() << c.name << ": signed without credentials";
    } catch (const std::runtime_error& error) {
      EXPECT_TRUE(isSigningFailure(error.what(), c.directedId)) << c.name << ": " << error.what();
    }
    EXPECT_TRUE(request == before) << c.name << ": headers were added";
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(TesselRequestSignerTest, LibraryHeadersOverwriteThoseOfAnyLetterCase) {
  installCredentials(true, true);
  WebRequest request;
  request.setUrl("https://messaging.example/poll");
  request.setHeader("x-device-serial", "stale");
  request.setHeader("X-DEVICE-SIGNATURE", "stale");
  TesselRequestSigner("").sign(request);
  EXPECT_EQ(request.getHeaders().size(), 3u);  // serial, date, signature
  EXPECT_EQ(request.getHeaders().begin()->first, "X-Device-Date");
  EXPECT_EQ(request.getHeaders().at("x-device-serial"), kSerial);
  EXPECT_NE(request.getHeaders().at("x-device-signature"), "stale");
  EXPECT_EQ(request.getHeaders().find("X-Device-Serial")->first, "x-device-serial");
}

TEST_F(TesselRequestSignerTest, SignsPayloadsWithTheDeviceSecret) {
  installCredentials(true, true);
  struct Case {
    std::string payload;
  };
  const Case cases[] = {{""}, {"{\"messageId\":\"m1\"}"}, {std::string("\0\xff", 2)}};
  TesselRequestSigner signer("amzn1.account.A");
  EXPECT_EQ(signer.getDirectedId(), "amzn1.account.A");
  for (const auto& c : cases) {
    EXPECT_EQ(signer.signPayload(reinterpret_cast<const unsigned char*>(c.payload.data()),
                                 c.payload.size()),
              hmacHex(kSecret, c.payload));
  }
}

TEST_F(TesselRequestSignerTest, PayloadSigningFailsWithoutASecret) {
  for (const std::string directedId : {"amzn1.account.A", ""}) {
    TesselRequestSigner signer(directedId);
    const unsigned char payload[] = {'x'};
    try {
      signer.signPayload(payload, sizeof payload);
      ADD_FAILURE() << "signed without a secret";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()), "Payload Signing Failure. DirectedId: " + directedId);
    }
  }
}

}  // namespace
