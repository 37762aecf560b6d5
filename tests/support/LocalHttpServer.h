// A scripted HTTP(S) server on 127.0.0.1 (tests/support/http_test_server.py)
// that records every request, byte for byte, before answering it. Construct
// and use it from the test's main thread.
#ifndef NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H
#define NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace nyxtest {

// One scripted answer. Requests take the answers in turn; once they are
// used up the server answers 404 "no scripted answer".
struct HttpAnswer {
  HttpAnswer(unsigned status = 200, std::vector<std::string> headerLines = {},
             std::string body = "")
      : status(status), headerLines(std::move(headerLines)), body(std::move(body)) {}

  unsigned status;
  // Written as given, malformed ones too; "Content-Length" is added unless given.
  std::vector<std::string> headerLines;
  std::string body;
  double delaySeconds = 0;
  // Not sent before release() (or the server's end): a server holding its
  // answer for as long as the test needs.
  bool hold = false;
};

struct RecordedRequest {
  std::string method;
  // As sent: "/a?b=1", or to a proxy the absolute URL or CONNECT authority.
  std::string target;
  // In the order received.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

class LocalHttpServer {
 public:
  // With a tls prefix, serves HTTPS with PREFIX.pem (the certificate chain)
  // and PREFIX.key. Throws std::runtime_error when the server does not start.
  explicit LocalHttpServer(const std::vector<HttpAnswer>& script = {}, const std::string& tls = "");
  LocalHttpServer(const LocalHttpServer&) = delete;
  LocalHttpServer& operator=(const LocalHttpServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" (or https) followed by pathAndQuery.
  std::string url(const std::string& pathAndQuery = "/") const;
  // Lets every held answer go, now and from now on.
  void release();
  // Every request received so far, oldest first.
  std::vector<RecordedRequest> requests() const;

 private:
  TempDir dir_;
  std::unique_ptr<ChildProcess> process_;
  std::string scheme_ = "http";
  int port_ = 0;
};

}  // namespace nyxtest

#endif  // NYX_TESTS_SUPPORT_LOCAL_HTTP_SERVER_H
