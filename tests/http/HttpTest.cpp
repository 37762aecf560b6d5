// The retry loop (on a scripted transport that records its waits) and the errors;
// the curl transports against local servers (the device transport's trust
// files and proxy too), and the signer without credentials.
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "daemon/common/Termination.h"
#include "http/HttpErrors.h"
#include "http/TesselCurlHttpClient.h"
#include "http/TesselRequestSigner.h"
#include "tests/support/Fakes.h"
#include "tests/support/LocalHttpServer.h"

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;
using nyxtest::HttpAnswer;
using nyxtest::LocalHttpServer;

// A transport failure of a type of its own, so that a sliced copy shows.
struct TransportError : IOError {
  using IOError::IOError;
};

// A step is "!text" (TransportError), "?text" (std::runtime_error) or
// "STATUS [Retry-After value]".
WebResponse stepAnswer(const std::string& step) {
  if (step[0] == '!') throw TransportError(step.substr(1));
  if (step[0] == '?') throw std::runtime_error(step.substr(1));
  WebResponse response;
  response.setStatusCode(std::stoul(step));
  const size_t space = step.find(' ');
  if (space != std::string::npos) response.setHeader("retry-after", step.substr(space + 1));
  return response;
}

WebRequest request(const std::string& url, const RequestMethod& method = RequestMethod::GET,
                   const std::string& body = "") {
  WebRequest request;
  request.setUrl(url);
  request.setMethod(method);
  request.setBody(body);
  return request;
}

// How a call ended: "returns N", "ClientError N", "ServerError N",
// "IOError text" (a TransportError: "transport text"), else "other text".
std::string outcome(const std::function<WebResponse()>& call) {
  try {
    return "returns " + std::to_string(call().getStatusCode());
  } catch (const ServerError& e) {
    return "ServerError " + std::to_string(e.getResponse().getStatusCode());
  } catch (const ClientError& e) {
    return "ClientError " + std::to_string(e.getResponse().getStatusCode());
  } catch (const IOError& e) {
    return std::string(dynamic_cast<const TransportError*>(&e) ? "transport " : "IOError ") +
           e.what();
  } catch (const std::exception& e) {
    return std::string("other ") + e.what();
  }
}

// A client whose attempts answer the steps in turn. A step ending in
// " +stop" asks the daemon to stop (as SIGTERM does) before the wait that
// follows it.
struct ScriptedClient : nyxtest::FakeHttpClient {
  explicit ScriptedClient(std::vector<std::string> steps) {
    answer = [this, steps = std::move(steps)](const WebRequest&) {
      std::string step = performed < steps.size() ? steps[performed++] : "?performed too often";
      const size_t stop = step.find(" +stop");
      terminationRequested.store(stop != std::string::npos);
      return stepAnswer(step.substr(0, stop));
    };
  }
  std::string run(uint32_t maxRetries) {
    WebRequest sent = request("https://messaging.example/poll");
    sent.setMaxRetries(maxRetries);
    const std::string ended = outcome([&] { return execute(sent); });
    terminationRequested.store(false);
    return ended;
  }
  size_t performed = 0;
};

TEST(HttpClientTest, RetriesOnTheScheduleAndEndsWithTheRightOutcome) {
  // Retries allowed, the transport's answers, bounds of each wait (a last 5xx
  // waits too), the outcome.
  using Case = std::tuple<uint32_t, std::vector<std::string>,
                          std::vector<std::pair<unsigned, unsigned>>, std::string>;
  const Case cases[] = {
      {3, {"!e1", "!e2", "!e3", "!e4"}, {{5, 9}, {10, 19}, {20, 39}}, "transport e4"},
      {3, {"500", "502", "504", "599"}, {{5, 9}, {10, 19}, {20, 39}, {40, 79}}, "ServerError 599"},
      {1, {"503 160", "503"}, {{160, 299}, {160, 299}}, "ServerError 503"},  // 160 stays the base
      {1, {"503 120", "503"}, {{120, 239}, {240, 299}}, "ServerError 503"},
      {3, {"503 301"}, {}, "ServerError 503"},
      {3, {"503 -1"}, {}, "ServerError 503"},
      {1, {"503 300", "503"}, {{300, 300}, {300, 300}}, "ServerError 503"},
      {0, {"503 Wed, 21 Oct 2015 07:28:00 GMT"}, {{5, 9}}, "ServerError 503"},
      {2, {"!e1", "503 2", "200"}, {{5, 9}, {10, 19}}, "returns 200"},
      {3, {"499 1"}, {}, "ClientError 499"},
      {3, {"302"}, {}, "returns 302"},
      // A stop during a wait: no further attempt, the failure in hand is final.
      {3, {"!e1", "!e2 +stop"}, {{5, 9}, {10, 19}}, "transport e2"},
      {3, {"503 +stop"}, {{5, 9}}, "ServerError 503"},
      {3, {"?Failed to initialize curl"}, {}, "other Failed to initialize curl"},
      {UINT32_MAX, {}, {}, "returns 0"},  // the attempt count wraps to 0
  };
  for (const auto& [maxRetries, steps, waits, expected] : cases) {
    SCOPED_TRACE(expected + " after " + std::to_string(steps.size()) + " steps");
    // Each wait has a random part: run often enough that a wrong bound shows.
    std::set<unsigned> firstWaits;
    for (int run = 0; run < 200; ++run) {
      ScriptedClient client(steps);
      ASSERT_EQ(client.run(maxRetries), expected);
      EXPECT_EQ(client.performed, steps.size());
      ASSERT_EQ(client.waits.size(), waits.size());
      for (size_t i = 0; i < waits.size(); ++i) {
        EXPECT_GE(client.waits[i], waits[i].first) << "wait " << i;
        EXPECT_LE(client.waits[i], waits[i].second) << "wait " << i;
      }
      if (!waits.empty()) firstWaits.insert(client.waits[0]);
    }
    EXPECT_EQ(firstWaits.size() > 1, !waits.empty() && waits[0].first != waits[0].second);
  }
}

TEST(HttpClientTest, LogsEachAttemptAndWhyItRetries) {
  nyxtest::LogCapture log;
  ScriptedClient client({"!Timeout was reached: slow", "503", "503 301"});
  client.run(3);
  client.HttpClient::waitSeconds(
      0);  // how a stop ends a wait: StopsWithinSecondsWhileWaitingToRetry
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "INFO HttpClient: Making request to https://messaging.example/poll",
                             "ERROR HttpClient: IOError: Timeout was reached: slow",
                             "INFO HttpClient: Retry 1", "INFO HttpClient: Retry 2",
                             "ERROR HttpClient: Server retry of 301 is too long, try again later",
                             "INFO HttpClient: Waiting for 0 seconds before next attempt"}));
}

TEST(HttpErrorsTest, MessagesListStatusHeadersAndBodyAndRaiseKeepsTheType) {
  WebResponse response = stepAnswer("500 7");
  response.setHeader("content-type", "text/plain");
  response.setBody(std::string("not\0here", 8));
  // Headers in map order; what() is a C string, so it ends at a zero byte.
  const std::string expected = "Status Code: 500\ncontent-type: text/plain\nretry-after: 7\nnot";
  const ServerError server(response);
  const IOError& asIOError = server;
  EXPECT_EQ(ClientError(response).what(), expected);
  EXPECT_EQ(server.what(), expected);
  EXPECT_EQ(server.getResponse().getBody(), response.getBody());
  EXPECT_EQ(outcome([&] { return asIOError.raise(), WebResponse(); }), "ServerError 500");
  const ClientError client(stepAnswer("404"));
  EXPECT_EQ(outcome([&] { return client.raise(), WebResponse(); }), "ClientError 404");
  EXPECT_EQ(outcome([] { return IOError("down").raise(), WebResponse(); }), "IOError down");
}

// Requests and responses are values: copies are deep, and request equality
// is byte-exact over every member and case-sensitive on header names.
TEST(WebValuesTest, CopiesAreDeepAndRequestEqualityIsByteExact) {
  struct Parts {
    std::string url = "https://m.test/a?b=1";
    const RequestMethod* method = &RequestMethod::POST;
    std::string header = "Accept";
    std::string value = "application/json";
    std::string body = std::string("x\0y", 3);
    uint32_t retries = 3;
    uint32_t timeout = 30;
  };
  auto build = [](const Parts& parts) {
    WebRequest built = request(parts.url, *parts.method, parts.body);
    built.setHeader(parts.header, parts.value);
    built.setMaxRetries(parts.retries);
    built.setTimeout(parts.timeout);
    return built;
  };
  const std::pair<std::function<void(Parts&)>, bool> cases[] = {
      {[](Parts&) {}, true},
      {[](Parts& p) { p.url = "https://m.test/a?b=2"; }, false},
      {[](Parts& p) { p.method = &RequestMethod::GET; }, false},
      {[](Parts& p) { p.header = "accept"; }, false},
      {[](Parts& p) { p.value = "application/JSON"; }, false},
      {[](Parts& p) { p.body = std::string("x\0z", 3); }, false},
      {[](Parts& p) { p.body = "x"; }, false},
      {[](Parts& p) { p.retries = 2; }, false},
      {[](Parts& p) { p.timeout = 31; }, false},
  };
  const WebRequest base = build(Parts());
  for (size_t row = 0; row < std::size(cases); ++row) {
    SCOPED_TRACE(row);
    Parts parts;
    cases[row].first(parts);
    const WebRequest other = build(parts);
    EXPECT_EQ(base == other, cases[row].second);
    EXPECT_EQ(base != other, !cases[row].second);
  }
  WebRequest copy(base);
  WebRequest assigned;
  assigned = base;
  for (WebRequest* changed : {&copy, &assigned}) {
    changed->setHeader("ACCEPT", "text/plain");
    changed->setBody("other");
    changed->setUrl("https://m.test/other");
  }
  EXPECT_TRUE(base == build(Parts()));
  EXPECT_EQ(base.getHeaders(), (HeaderMap{{"Accept", "application/json"}}));

  WebResponse response = stepAnswer("200 5");
  WebResponse responseCopy(response);
  responseCopy.setHeader("Retry-After", "6");
  responseCopy.setBody("changed");
  EXPECT_EQ(response.getHeader("RETRY-AFTER"), "5");
  EXPECT_EQ(response.getBody(), "");
  EXPECT_EQ(outcome([&] { return WebResponse(), response.getHeader("X-Missing"), response; }),
            "other Attempted retrieval of non-existent header: X-Missing");
}

TEST(CurlHttpClientTest, SendsEveryRequestExactlyAsBuiltBodyIncluded) {
  LocalHttpServer server;  // 404 for every request
  const std::pair<const RequestMethod&, std::string> cases[] = {
      {RequestMethod::GET, "page=2"},
      {RequestMethod::POST, std::string("a\0b\xff\r\n", 6)},
  };
  for (const auto& [method, body] : cases) {
    WebRequest sent = request(server.url("/devicemessaging/register?app=x&v=1"), method, body);
    sent.setHeader("x-zvo-reason", "NUDGE");
    sent.setHeader("Content-Type", "application/json");
    sent.setHeader("X-Device-Signature", "0123abcd");
    EXPECT_EQ(CurlHttpClient().perform(sent).getStatusCode(), 404u);
    const auto seen = server.requests().back();
    EXPECT_EQ(seen.method, method.name());
    EXPECT_EQ(seen.target, "/devicemessaging/register?app=x&v=1");
    // curl's Host and Accept, ours in map order (replacing curl's Content-Type), the length.
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
  const HttpAnswer moved{302, {"Location: /second", "X-D: 1", "X-C:b"}, "moved"};
  const HttpAnswer last{
      503, {"x-d: 2", "X-A: b: c", "X-Empty: ", "X-B:  two  "}, std::string("\0\x01z\xff\0", 5)};
  LocalHttpServer server({moved, last});
  const WebResponse response = CurlHttpClient().perform(request(server.url("/first")));
  EXPECT_EQ(server.requests().back().target, "/second");
  EXPECT_EQ(response.getStatusCode(), 503u);
  EXPECT_EQ(response.getBody(), last.body);
  // Split at the first ": " (none: skipped); later blocks win, the first spelling stays.
  EXPECT_EQ(Headers(response.getHeaders().begin(), response.getHeaders().end()),
            (Headers{{"Content-Length", "5"},
                     {"Location", "/second"},
                     {"X-A", "b: c"},
                     {"X-B", " two  "},
                     {"X-D", "2"},
                     {"X-Empty", ""}}));
}

TEST(CurlHttpClientTest, FailedTransfersBecomeIOErrorWithCurlsText) {
  HttpAnswer slow{200, {}, "late"};
  slow.delaySeconds = 3;  // longer than the request's timeout
  LocalHttpServer server({slow});
  const int closedPort = LocalHttpServer().port();  // stopped again at once
  const std::tuple<std::string, CURLcode, const char*> cases[] = {
      {server.url("/slow"), CURLE_OPERATION_TIMEDOUT, ": .+"},  // with curl's detail
      {"http://127.0.0.1:" + std::to_string(closedPort), CURLE_COULDNT_CONNECT, ": .+"},
      {"http://exa mple/", CURLE_URL_MALFORMAT, ": "},
  };
  for (const auto& [url, code, detail] : cases) {
    WebRequest sent = request(url);
    sent.setTimeout(1);
    EXPECT_THAT(outcome([&] { return CurlHttpClient().perform(sent); }),
                testing::MatchesRegex(std::string("IOError ") + curl_easy_strerror(code) + detail));
  }
}

// The device transport on the host platform, under a test root, against
// servers with certificates made for this run (make-test-pki.sh).
TEST(DeviceTransportTest, FollowsTheDeviceTrustFilesAndUsesTheProxyOfTheProxiedInterface) {
  for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
                           "no_proxy", "NO_PROXY"})
    unsetenv(name);  // they would hide whether the client chose a proxy
  const nyxtest::TempDir pki;
  nyxtest::ChildProcess make(
      {{"sh", nyxtest::sourceDir() + "/tests/http/make-test-pki.sh", pki.path()}});
  ASSERT_EQ(make.waitForExit(nyxtest::milliseconds(60000)), 0) << make.output();
  std::map<std::string, LocalHttpServer> servers;
  for (const std::string name : {"good", "revoked", "expired"}) {
    servers.try_emplace(name, std::vector<HttpAnswer>{}, pki.path() + "/" + name);
  }
  const std::string crl = nyxtest::readFile(pki.path() + "/crl.pem");
  const std::string emptyCrl = nyxtest::readFile(pki.path() + "/crl-empty.pem");
  const std::string refused =
      std::string("IOError ") + curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  const struct {
    const char *what, *server;
    bool caPem;
    const char* crlPem;  // nullptr: no file
    std::string expected;
    bool caInSystemStore = false;    // the system's hashed directory holds the CA
    const char* host = "127.0.0.1";  // the certificates name 127.0.0.1 only
  } tlsCases[] = {
      {"trusted only through ca.pem", "good", true, nullptr, "returns 404"},
      {"CA unknown without ca.pem", "good", false, nullptr, refused},
      {"trusted through the system store", "good", false, nullptr, "returns 404", true},
      {"revoked, but no CRL", "revoked", true, nullptr, "returns 404"},
      {"revoked with crl.pem", "revoked", true, crl.c_str(), refused},
      {"revoked with a system CA", "revoked", false, crl.c_str(), refused, true},
      {"good with crl.pem", "good", true, crl.c_str(), "returns 404"},
      {"revoked, CRL revoking nothing", "revoked", true, emptyCrl.c_str(), "returns 404"},
      {"unreadable crl.pem", "revoked", true, "not a CRL\n",
       std::string("IOError ") + curl_easy_strerror(CURLE_SSL_CRL_BADFILE)},
      {"wrong host name", "good", true, nullptr, refused, false, "localhost"},
      {"expired certificate", "expired", true, nullptr, refused},
      {"trusted again after the CRL goes", "revoked", true, nullptr, "returns 404"},
  };
  // One root for all rows: the transport must follow the files as they change.
  nyxtest::NyxRoot root;
  for (const auto& row : tlsCases) {
    SCOPED_TRACE(row.what);
    std::remove(root.file("etc/nyx-host/tls/ca.pem").c_str());
    std::remove(root.file("etc/nyx-host/tls/crl.pem").c_str());
    if (row.caPem) {
      root.writePlatformFile("tls/ca.pem", nyxtest::readFile(pki.path() + "/ca.pem"));
    }
    if (row.crlPem != nullptr) {
      root.writePlatformFile("tls/crl.pem", row.crlPem);
    }
    const nyxtest::ScopedEnv systemStore(
        "SSL_CERT_DIR",
        row.caInSystemStore ? std::optional<std::string>(pki.path() + "/hashed") : std::nullopt);
    const std::string url =
        "https://" + std::string(row.host) + ":" + std::to_string(servers.at(row.server).port());
    EXPECT_THAT(outcome([&] { return TesselCurlHttpClient().perform(request(url)); }),
                testing::StartsWith(row.expected));
  }

  LocalHttpServer origin, proxy;
  const LocalHttpServer& secureOrigin = servers.at("good");
  const std::string proxyLine = "proxy=127.0.0.1:" + std::to_string(proxy.port()) + "\n";
  const std::tuple<std::string, bool, std::string, std::string> cases[] = {
      // The network file, HTTPS or not, what the proxy sees ("" for nothing), the
      // outcome (the proxy answers 404 to everything, so a CONNECT opens no tunnel).
      {"interface=2\n" + proxyLine, false, "GET " + origin.url("/poll?x=1"), "returns 404"},
      {"interface=2\n" + proxyLine, true,
       "CONNECT 127.0.0.1:" + std::to_string(secureOrigin.port()),
       std::string("IOError ") + curl_easy_strerror(CURLE_RECV_ERROR)},
      {"interface=1\n" + proxyLine, false, "", "returns 404"},
      {"interface=2\nproxy=127.0.0.1\n", false, "", "returns 404"},
  };
  TesselCurlHttpClient client;  // one client: the proxy is looked up for each attempt
  for (const auto& [network, secure, proxied, ended] : cases) {
    SCOPED_TRACE(network + (secure ? " https" : " http"));
    root.writePlatformFile("network", network);
    const size_t before = proxy.requests().size();
    const LocalHttpServer& target = secure ? secureOrigin : origin;
    EXPECT_THAT(outcome([&] { return client.perform(request(target.url("/poll?x=1"))); }),
                testing::StartsWith(ended));
    const auto seen = proxy.requests();
    ASSERT_LE(seen.size(), before + 1);
    EXPECT_EQ(seen.size() == before ? "" : seen.back().method + " " + seen.back().target, proxied);
  }
}

TEST(SignerTest, MissingCredentialsFailSigningAndAddNoHeader) {
  // The one file present, the customer.
  for (const auto& [file, directedId] : {std::pair{"device-serial", "A"}, {"device-secret", ""}}) {
    nyxtest::NyxRoot root;
    root.writePlatformFile(file, "present\n");
    WebRequest sent = request("https://m.test/devicemessaging/register");
    EXPECT_THAT(outcome([&, directedId = directedId] {
                  return TesselRequestSigner(directedId).sign(sent), WebResponse();
                }),
                testing::MatchesRegex(std::string("other Request Signing Failure\\. StatusCode: "
                                                  "-?[1-9][0-9]* DirectedId: ") +
                                      directedId));
    EXPECT_TRUE(sent.getHeaders().empty()) << file << ": headers were added";
  }
}

}  // namespace
