// A scripted local HTTP(S) server on 127.0.0.1 for tests that need a real
// server in the loop: it answers from a script and records every request it
// received, byte for byte, before answering it.
//
//   nyxtest::LocalHttpServer server({HttpAnswer(200, {"Content-Type: application/json"}, "{}")});
//   client.execute(request with URL server.url("/messages?page=1"));
//   auto seen = server.requests();  // method, target, headers, body
//
// The server is tests/support/http_test_server.py run with plain python3 (on
// the build machine, also in a cross build); its file documents the script
// and record formats. Construct and use it from the test's main thread.
#ifndef NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H
#define NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace nyxtest {

// One scripted answer. Requests take the first unused answer whose path
// matches; without one the server answers 404 "no scripted answer".
struct HttpAnswer {
  // So that a script reads {{200, {"X-A: 1"}, "body"}, {503}}.
  HttpAnswer(unsigned status = 200, std::vector<std::string> headerLines = {},
             std::string body = "")
      : status(status), headerLines(std::move(headerLines)), body(std::move(body)) {}

  unsigned status;
  // Raw header lines written as given ("X-A: b: c", or malformed ones such
  // as "X-A:b"); "Content-Length" is added unless one is given.
  std::vector<std::string> headerLines;
  // Any bytes, zero bytes included.
  std::string body;
  // When not empty, only a request for this path (query left out) takes it.
  std::string path;
  // Seconds to wait before answering, e.g. longer than the request timeout.
  double delaySeconds = 0;
  // Send the headers and half of the body, then close the connection.
  bool closeMidBody = false;
  // Answer every matching request instead of being used up.
  bool repeat = false;
};

// One request as the server received it.
struct RecordedRequest {
  std::string method;
  // The request target as sent: path and query ("/a?b=1"), or for a proxy
  // the absolute URL or the CONNECT authority.
  std::string target;
  // Header lines in the order received; values without leading blanks.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  // With Options::signingSecret: "valid", "invalid" or "missing"; else "".
  std::string signature;

  // The first value of the header of that name in any letter case, or ""
  // when the request has none; hasHeader tells the two apart.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

class LocalHttpServer {
 public:
  struct Options {
    // Both set: serve HTTPS with this certificate chain and key (PEM files).
    std::string certificateFile;
    std::string keyFile;
    // When set, every recorded request carries the verdict on its device
    // signature under this secret (see RecordedRequest::signature).
    std::string signingSecret;
    // Be a forward proxy (CONNECT tunnels and absolute-form requests)
    // instead of answering from the script; requests() lists what it saw.
    bool proxy = false;
  };

  // Starts the server and waits until it listens; throws std::runtime_error
  // when it does not start.
  explicit LocalHttpServer(const std::vector<HttpAnswer>& script = {});
  LocalHttpServer(const std::vector<HttpAnswer>& script, const Options& options);
  // Stops the server.
  ~LocalHttpServer();
  LocalHttpServer(const LocalHttpServer&) = delete;
  LocalHttpServer& operator=(const LocalHttpServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" (or https) followed by pathAndQuery.
  std::string url(const std::string& pathAndQuery = "/") const;
  // Replaces the script; answers not yet used are dropped. Returns once the
  // server has loaded it.
  void setScript(const std::vector<HttpAnswer>& script);
  // Every request received so far, oldest first.
  std::vector<RecordedRequest> requests() const;

 private:
  TempDir dir_;
  std::unique_ptr<ChildProcess> process_;
  std::string scheme_;
  int port_ = 0;
  int loads_ = 0;
};

}  // namespace nyxtest

#endif  // NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H
