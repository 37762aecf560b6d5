// The curl transport against a real local server: the bytes on the wire,
// the parsing of what comes back, and transfers that fail.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "http/CurlHttpClient.h"
#include "http/HttpErrors.h"
#include "tests/support/LocalHttpServer.h"

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;
using nyxtest::HttpAnswer;
using nyxtest::LocalHttpServer;

Headers entries(const HeaderMap& headers) { return {headers.begin(), headers.end()}; }

std::string curlText(CURLcode code) { return curl_easy_strerror(code); }

// A port on 127.0.0.1 that nothing listens on.
int closedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

TEST(CurlHttpClientTest, SendsTheRequestExactlyAsBuilt) {
  LocalHttpServer server({HttpAnswer(200, {}, "ok")});
  WebRequest request;
  request.setUrl(server.url("/devicemessaging/register?app=x&v=1"));
  request.setMethod(RequestMethod::POST);
  request.setHeader("x-zvo-reason", "NUDGE");
  request.setHeader("Content-Type", "application/json");
  request.setHeader("X-Device-Signature", "0123abcd");
  request.setHeader("X-Device-Date", "2024-05-01T10:00:00Z");
  request.setBody("{\"senders\":[\"a\",\"b\"]}");

  CurlHttpClient client;
  WebResponse response = client.perform(request);
  EXPECT_EQ(response.getStatusCode(), 200u);
  EXPECT_EQ(response.getBody(), "ok");

  const auto seen = server.requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].target, "/devicemessaging/register?app=x&v=1");
  // curl's own Host and Accept first, then the request's headers in the
  // header map's order (our Content-Type replacing curl's), then the length.
  const Headers expected = {
      {"Host", "127.0.0.1:" + std::to_string(server.port())},
      {"Accept", "*/*"},
      {"Content-Type", "application/json"},
      {"X-Device-Date", "2024-05-01T10:00:00Z"},
      {"X-Device-Signature", "0123abcd"},
      {"x-zvo-reason", "NUDGE"},
      {"Content-Length", "21"},
  };
  EXPECT_EQ(seen[0].headers, expected);
  EXPECT_EQ(seen[0].body, "{\"senders\":[\"a\",\"b\"]}");
}

TEST(CurlHttpClientTest, EveryRequestCarriesItsBodyWhateverTheMethod) {
  struct Case {
    const RequestMethod& method;
    std::string body;
  };
  const Case cases[] = {
      {RequestMethod::GET, ""},
      {RequestMethod::GET, "page=2"},
      {RequestMethod::POST, ""},
      {RequestMethod::POST, std::string("a\0b\xff\r\n", 6)},
  };
  for (const auto& c : cases) {
    LocalHttpServer server({HttpAnswer(204)});
    WebRequest request;
    request.setUrl(server.url("/poll"));
    request.setMethod(c.method);
    request.setBody(c.body);
    EXPECT_EQ(CurlHttpClient().perform(request).getStatusCode(), 204u);
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method, c.method.name());
    EXPECT_EQ(seen[0].header("Content-Length"), std::to_string(c.body.size())) << c.method.name();
    EXPECT_EQ(seen[0].header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(seen[0].body, c.body);
  }
}

TEST(CurlHttpClientTest, ParsesHeaderLinesAtTheFirstColonAndSpace) {
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    Headers expected;  // Content-Length is added by the server
  };
  const Case cases[] = {
      {"value keeps later colons", {"X-A: b: c"}, {{"Content-Length", "0"}, {"X-A", "b: c"}}},
      {"no space after the colon is skipped", {"X-A:b"}, {{"Content-Length", "0"}}},
      {"empty value", {"X-Empty: "}, {{"Content-Length", "0"}, {"X-Empty", ""}}},
      {"blanks are kept", {"X-B:  two  "}, {{"Content-Length", "0"}, {"X-B", " two  "}}},
      {"later line wins, first spelling stays",
       {"X-D: 1", "x-d: 2"},
       {{"Content-Length", "0"}, {"X-D", "2"}}},
  };
  for (const auto& c : cases) {
    LocalHttpServer server({HttpAnswer(200, c.lines)});
    WebRequest request;
    request.setUrl(server.url("/"));
    EXPECT_EQ(entries(CurlHttpClient().perform(request).getHeaders()), c.expected) << c.name;
  }
}

TEST(CurlHttpClientTest, FollowsRedirectsAndMergesTheHeadersLaterWinning) {
  HttpAnswer moved{302, {"Location: /second", "X-First: 1", "X-Shared: first"}, "moved"};
  moved.path = "/first";
  HttpAnswer final{200, {"X-Shared: second"}, "done"};
  final.path = "/second";
  LocalHttpServer server({moved, final});
  WebRequest request;
  request.setUrl(server.url("/first"));
  WebResponse response = CurlHttpClient().perform(request);
  EXPECT_EQ(response.getStatusCode(), 200u);
  EXPECT_EQ(response.getBody(), "done");
  const Headers expected = {
      {"Content-Length", "4"}, {"Location", "/second"}, {"X-First", "1"}, {"X-Shared", "second"}};
  EXPECT_EQ(entries(response.getHeaders()), expected);
  const auto seen = server.requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].target, "/second");
}

TEST(CurlHttpClientTest, ReturnsEveryStatusWithItsBodyBytes) {
  const std::string bytes("\0\x01z\xff\0", 5);
  for (unsigned status : {200u, 204u, 404u, 503u}) {
    LocalHttpServer server({HttpAnswer(status, {"Retry-After: 5"}, status == 204 ? "" : bytes)});
    WebRequest request;
    request.setUrl(server.url("/"));
    WebResponse response = CurlHttpClient().perform(request);
    EXPECT_EQ(response.getStatusCode(), status);
    EXPECT_EQ(response.getBody(), status == 204 ? "" : bytes) << status;
    EXPECT_EQ(response.getHeader("retry-after"), "5");
  }
}

TEST(CurlHttpClientTest, FailedTransfersBecomeIOErrorWithCurlsText) {
  HttpAnswer slow{200, {}, "late"};
  slow.delaySeconds = 3;
  HttpAnswer cut{200, {}, std::string(100, 'x')};
  cut.closeMidBody = true;
  LocalHttpServer server({slow, cut});

  struct Case {
    const char* name;
    std::string url;
    CURLcode code;
    // Whether curl explains the failure in its error buffer; when it does
    // not, the message ends in ": ".
    bool detail;
  };
  const Case cases[] = {
      {"timeout", server.url("/slow"), CURLE_OPERATION_TIMEDOUT, true},
      {"connection closed mid-body", server.url("/cut"), CURLE_PARTIAL_FILE, true},
      {"refused", "http://127.0.0.1:" + std::to_string(closedPort()) + "/", CURLE_COULDNT_CONNECT,
       true},
      {"malformed URL", "http://exa mple/", CURLE_URL_MALFORMAT, false},
      {"unknown scheme", "nyx://127.0.0.1/", CURLE_UNSUPPORTED_PROTOCOL, true},
  };
  for (const auto& c : cases) {
    WebRequest request;
    request.setUrl(c.url);
    request.setTimeout(1);
    try {
      CurlHttpClient().perform(request);
      ADD_FAILURE() << c.name << ": no error";
    } catch (const IOError& error) {
      const std::string message = error.what();
      const std::string prefix = curlText(c.code) + ": ";
      EXPECT_EQ(message.substr(0, prefix.size()), prefix) << c.name << ": " << message;
      EXPECT_EQ(message.size() > prefix.size(), c.detail) << c.name << ": " << message;
    }
  }
}

}  // namespace
