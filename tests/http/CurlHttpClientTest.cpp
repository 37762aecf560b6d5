// The curl transports and the request signer against local servers: the
// bytes on the wire, the parsing of answers, failed transfers, and on the host
// platform the proxy choice, the device trust anchors and signatures.
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "http/HttpErrors.h"
#include "http/TesselCurlHttpClient.h"
#include "http/TesselRequestSigner.h"
#include "tests/support/LocalHttpServer.h"

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;
using nyxtest::HttpAnswer;
using nyxtest::LocalHttpServer;

// As the daemon does at start-up, before any transfer.
struct CurlGlobal : testing::Environment {
  void SetUp() override { ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK); }
  void TearDown() override { curl_global_cleanup(); }
};
testing::Environment* const curlGlobal = testing::AddGlobalTestEnvironment(new CurlGlobal);

HttpAnswer always(const std::string& body = "") {
  HttpAnswer answer(200, {}, body);
  answer.repeat = true;
  return answer;
}

WebRequest request(const std::string& url, const RequestMethod& method = RequestMethod::GET,
                   const std::string& body = "") {
  WebRequest request;
  request.setUrl(url);
  request.setMethod(method);
  request.setBody(body);
  return request;
}

// The IOError's message, or "" when the call did not throw one.
std::string ioError(const std::function<void()>& call) {
  try {
    call();
  } catch (const IOError& error) {
    return error.what();
  }
  return "";
}

TEST(CurlHttpClientTest, SendsEveryRequestExactlyAsBuiltBodyIncluded) {
  LocalHttpServer server({always()});
  const std::pair<const RequestMethod&, std::string> cases[] = {
      {RequestMethod::POST, "{\"senders\":[\"a\",\"b\"]}"},
      {RequestMethod::GET, "page=2"},
      {RequestMethod::GET, ""},
      {RequestMethod::POST, std::string("a\0b\xff\r\n", 6)},
  };
  for (const auto& [method, body] : cases) {
    WebRequest sent = request(server.url("/devicemessaging/register?app=x&v=1"), method, body);
    sent.setHeader("x-zvo-reason", "NUDGE");
    sent.setHeader("Content-Type", "application/json");
    sent.setHeader("X-Device-Signature", "0123abcd");
    EXPECT_EQ(CurlHttpClient().perform(sent).getStatusCode(), 200u);
    const auto seen = server.requests().back();
    EXPECT_EQ(seen.method, method.name());
    EXPECT_EQ(seen.target, "/devicemessaging/register?app=x&v=1");
    // curl's Host and Accept, ours in header-map order (our Content-Type
    // replacing curl's), then the length.
    EXPECT_EQ(seen.headers, (Headers{{"Host", "127.0.0.1:" + std::to_string(server.port())},
                                     {"Accept", "*/*"},
                                     {"Content-Type", "application/json"},
                                     {"X-Device-Signature", "0123abcd"},
                                     {"x-zvo-reason", "NUDGE"},
                                     {"Content-Length", std::to_string(body.size())}}));
    EXPECT_EQ(seen.body, body);
  }
}

TEST(CurlHttpClientTest, MergesTheHeadersOfARedirectChainAndKeepsEveryBodyByte) {
  HttpAnswer moved{302, {"Location: /second", "X-Shared: first", "X-D: 1", "X-C:b"}, "moved"};
  moved.path = "/first";
  HttpAnswer last{503,
                  {"X-Shared: second", "x-d: 2", "X-A: b: c", "X-Empty: ", "X-B:  two  "},
                  std::string("\0\x01z\xff\0", 5)};
  last.path = "/second";
  LocalHttpServer server({moved, last});
  const WebResponse response = CurlHttpClient().perform(request(server.url("/first")));
  EXPECT_EQ(response.getStatusCode(), 503u);
  EXPECT_EQ(response.getBody(), std::string("\0\x01z\xff\0", 5));
  // Split at the first ": " (no space: skipped), later blocks win, the first
  // spelling of a name stays.
  EXPECT_EQ(Headers(response.getHeaders().begin(), response.getHeaders().end()),
            (Headers{{"Content-Length", "5"},
                     {"Location", "/second"},
                     {"X-A", "b: c"},
                     {"X-B", " two  "},
                     {"X-D", "2"},
                     {"X-Empty", ""},
                     {"X-Shared", "second"}}));
  EXPECT_EQ(server.requests().back().target, "/second");
}

TEST(CurlHttpClientTest, FailedTransfersBecomeIOErrorWithCurlsText) {
  HttpAnswer slow{200, {}, "late"}, cut{200, {}, std::string(100, 'x')};
  slow.delaySeconds = 3;
  cut.closeMidBody = true;
  LocalHttpServer server({slow, cut});
  const int closedPort = LocalHttpServer().port();  // stopped again at once
  struct Case {
    std::string url;
    CURLcode code;
    bool detail;  // whether curl's error buffer adds to the text
  };
  const Case cases[] = {
      {server.url("/slow"), CURLE_OPERATION_TIMEDOUT, true},
      {server.url("/cut"), CURLE_PARTIAL_FILE, true},
      {"http://127.0.0.1:" + std::to_string(closedPort) + "/", CURLE_COULDNT_CONNECT, true},
      {"http://exa mple/", CURLE_URL_MALFORMAT, false},
  };
  for (const auto& c : cases) {
    WebRequest sent = request(c.url);
    sent.setTimeout(1);
    const std::string message = ioError([&] { CurlHttpClient().perform(sent); });
    const std::string prefix = std::string(curl_easy_strerror(c.code)) + ": ";
    EXPECT_EQ(message.substr(0, prefix.size()), prefix) << c.url << ": " << message;
    EXPECT_EQ(message.size() > prefix.size(), c.detail) << c.url << ": " << message;
  }
}

// The host platform under a test root, with a CA and a server certificate
// for 127.0.0.1 made once with the openssl command.
class DeviceTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    certificates_ = new nyxtest::TempDir;
    const std::string d = certificates_->path() + "/";
    const std::vector<std::string> ec = {"-newkey", "ec", "-pkeyopt",
                                         "ec_paramgen_curve:prime256v1", "-nodes"};
    std::vector<std::string> commands[] = {
        {"openssl", "req", "-x509", "-days", "2", "-subj", "/CN=Nyx Test CA", "-keyout",
         d + "ca.key", "-out", d + "ca.pem"},
        {"openssl", "req", "-new", "-subj", "/CN=127.0.0.1", "-keyout", d + "server.key", "-out",
         d + "server.csr"},
        {"openssl", "x509", "-req", "-days", "2", "-in", d + "server.csr", "-CA", d + "ca.pem",
         "-CAkey", d + "ca.key", "-CAcreateserial", "-extfile", d + "server.ext", "-out",
         d + "server.pem"}};
    commands[0].insert(commands[0].end(), ec.begin(), ec.end());
    commands[1].insert(commands[1].end(), ec.begin(), ec.end());
    nyxtest::writeFile(d + "server.ext",
                       "subjectAltName=IP:127.0.0.1\nbasicConstraints=CA:FALSE\n");
    for (const auto& argv : commands) {
      nyxtest::ChildProcess process({argv});
      ASSERT_EQ(process.waitForExit(nyxtest::milliseconds(60000)), 0) << process.output();
    }
  }
  static void TearDownTestSuite() { delete certificates_; }

  static LocalHttpServer::Options https() {
    LocalHttpServer::Options options;
    options.certificateFile = certificates_->path() + "/server.pem";
    options.keyFile = certificates_->path() + "/server.key";
    return options;
  }
  void trustTestCa() const {
    root_.writePlatformFile("tls/ca.pem", nyxtest::readFile(certificates_->path() + "/ca.pem"));
  }

  static nyxtest::TempDir* certificates_;
  // Proxies from the environment would hide whether the client chose one.
  std::vector<std::unique_ptr<nyxtest::ScopedEnv>> noProxy_ = [] {
    std::vector<std::unique_ptr<nyxtest::ScopedEnv>> unset;
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
                             "no_proxy", "NO_PROXY"}) {
      unset.push_back(std::make_unique<nyxtest::ScopedEnv>(name, std::nullopt));
    }
    return unset;
  }();
  nyxtest::NyxRoot root_;
};
nyxtest::TempDir* DeviceTest::certificates_ = nullptr;

TEST_F(DeviceTest, TrustsServersOnlyThroughTheDeviceTrustAnchors) {
  LocalHttpServer server({always("secure")}, https());
  const std::string refused = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  const auto fetch = [&](CurlHttpClient&& client) {
    return ioError([&] { EXPECT_EQ(client.perform(request(server.url())).getBody(), "secure"); });
  };
  EXPECT_THAT(fetch(TesselCurlHttpClient()), testing::StartsWith(refused));
  trustTestCa();
  EXPECT_EQ(fetch(TesselCurlHttpClient()), "");
  EXPECT_THAT(fetch(CurlHttpClient()), testing::StartsWith(refused));
}

TEST_F(DeviceTest, UsesTheProxyOnlyForTheProxiedInterfaceWithHostAndPort) {
  LocalHttpServer origin({always("hello")}), secureOrigin({always("hello")}, https());
  LocalHttpServer::Options proxyOptions;
  proxyOptions.proxy = true;
  LocalHttpServer proxy({}, proxyOptions);
  trustTestCa();
  const std::string proxyLine = "proxy=127.0.0.1:" + std::to_string(proxy.port()) + "\n";
  struct Case {
    std::optional<std::string> network;
    bool secure;
    std::string proxyTarget;  // "" for a direct request
  };
  const Case cases[] = {
      {"interface=2\n" + proxyLine, false, origin.url("/poll?x=1")},
      {"interface=2\n" + proxyLine, true, "127.0.0.1:" + std::to_string(secureOrigin.port())},
      {"interface=1\n" + proxyLine, false, ""},
      {"interface=2\nproxy=127.0.0.1\n", false, ""},
      {"interface=2\n", false, ""},
      {std::nullopt, false, ""},
  };
  TesselCurlHttpClient client;  // one client: the proxy is looked up for each attempt
  for (const auto& c : cases) {
    SCOPED_TRACE(c.network.value_or("no network file") + (c.secure ? " https" : " http"));
    if (c.network) {
      root_.writePlatformFile("network", *c.network);
    } else {
      std::remove(root_.file("etc/nyx-host/network").c_str());
    }
    const size_t proxied = proxy.requests().size();
    LocalHttpServer& target = c.secure ? secureOrigin : origin;
    EXPECT_EQ(client.perform(request(target.url("/poll?x=1"))).getBody(), "hello");
    EXPECT_EQ(target.requests().back().target, "/poll?x=1");
    const auto seen = proxy.requests();
    ASSERT_EQ(seen.size(), proxied + (c.proxyTarget.empty() ? 0 : 1));
    if (!c.proxyTarget.empty()) {
      EXPECT_EQ(seen.back().method, c.secure ? "CONNECT" : "GET");
      EXPECT_EQ(seen.back().target, c.proxyTarget);
    }
  }
}

TEST_F(DeviceTest, SignedRequestsVerifyOnTheServerUntilASignedPartChanges) {
  root_.writePlatformFile("device-serial", "G090LF1234567890\n");
  root_.writePlatformFile("device-secret", "device-secret-for-tests\n");
  LocalHttpServer::Options checking;
  checking.signingSecret = "device-secret-for-tests";
  LocalHttpServer server({always()}, checking);
  struct Case {
    std::string directedId;
    const RequestMethod& method;
    std::string pathAndQuery, body;
    void (*change)(WebRequest&);
    std::string verdict;
  };
  const Case cases[] = {
      {"amzn1.account.A", RequestMethod::POST, "/register?app=x", "{\"s\":[1]}", nullptr, "valid"},
      {"", RequestMethod::GET, "/devicemessaging/messages", "", nullptr, "valid"},
      {"amzn1.account.A", RequestMethod::GET, "?page=2", "", nullptr, "valid"},
      {"amzn1.account.B", RequestMethod::POST, "/ack", std::string("\0\x01\xff", 3), nullptr,
       "valid"},
      {"amzn1.account.A", RequestMethod::POST, "/r?app=x", "{}",
       [](WebRequest& r) { r.setBody("{ }"); }, "invalid"},
      {"amzn1.account.A", RequestMethod::POST, "/r?app=x", "{}",
       [](WebRequest& r) { r.setUrl(r.getUrl() + "&v=2"); }, "invalid"},
      {"amzn1.account.A", RequestMethod::POST, "/r?app=x", "{}",
       [](WebRequest& r) { r.setMethod(RequestMethod::GET); }, "invalid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    WebRequest sent = request(server.url("") + c.pathAndQuery, c.method, c.body);
    TesselRequestSigner(c.directedId).sign(sent);
    if (c.change) c.change(sent);
    TesselCurlHttpClient().perform(sent);
    const auto seen = server.requests().back();
    EXPECT_EQ(seen.signature, c.verdict);
    EXPECT_EQ(seen.header("X-Device-Serial"), "G090LF1234567890");
    EXPECT_EQ(seen.hasHeader("X-Device-Customer"), !c.directedId.empty());
    EXPECT_EQ(seen.header("X-Device-Customer"), c.directedId);
    EXPECT_THAT(seen.header("X-Device-Date"),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z"));
  }
}

TEST_F(DeviceTest, MissingCredentialsFailSigningAndNothingIsSent) {
  LocalHttpServer server({always()});
  for (const char* file : {"device-serial", "device-secret"}) {
    nyxtest::NyxRoot root;
    root.writePlatformFile(file, "present\n");
    for (const std::string directedId : {"amzn1.account.A", ""}) {
      WebRequest sent = request(server.url("/devicemessaging/register"));
      const WebRequest before(sent);
      try {
        TesselRequestSigner(directedId).sign(sent);  // as a request builder does
        TesselCurlHttpClient().perform(sent);
        ADD_FAILURE() << file << ": signed without the other";
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::MatchesRegex("Request Signing Failure\\. StatusCode: "
                                                        "-?[1-9][0-9]* DirectedId: " +
                                                        directedId));
      }
      EXPECT_TRUE(sent == before) << file << ": headers were added";
    }
  }
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
