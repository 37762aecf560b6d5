// Fakes of the seams between the daemon's parts, shared by the C++ tests, the
// fuzz targets and the benchmarks: an HTTP transport answering through a
// function, a signer, a bus sender that records, a logger that drops every
// line. Header only: the benchmarks link no test library.
#ifndef NYX_TESTS_SUPPORT_FAKES_H
#define NYX_TESTS_SUPPORT_FAKES_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "daemon/common/IPCMessageSender.h"
#include "daemon/common/Logging.h"
#include "http/HttpClient.h"
#include "http/RequestSigner.h"

namespace nyxtest {

inline WebResponse response(uint32_t status, const std::string& body = "",
                            const HeaderMap& headers = {}) {
  WebResponse response;
  response.setStatusCode(status);
  for (const auto& [name, value] : headers) {
    response.setHeader(name, value);
  }
  response.setBody(body);
  return response;
}

// Answers every attempt through answer (404 until set), keeping each request
// with record; HttpClient's own retries run on top, and a wait only records
// its length.
class FakeHttpClient : public HttpClient {
 public:
  WebResponse perform(const WebRequest& request) override {
    if (record) {
      requests.push_back(request);
    }
    return answer(request);
  }
  void waitSeconds(unsigned int seconds) override { waits.push_back(seconds); }

  std::function<WebResponse(const WebRequest&)> answer = [](const WebRequest&) {
    return response(404);
  };
  bool record = true;
  std::vector<WebRequest> requests;
  std::vector<unsigned int> waits;
};

// Signs with the header "x-test-signed: <directed id>" and, with record,
// keeps each body it signed, which must be the request's final body.
class FakeSigner : public RequestSigner {
 public:
  const std::string& getDirectedId() const override { return directedId; }
  void sign(WebRequest& request) override {
    if (record) {
      signedBodies.push_back(request.getBody());
    }
    request.setHeader("x-test-signed", directedId);
  }
  std::string signPayload(const unsigned char*, size_t) override { return ""; }

  std::string directedId = "account-1";
  bool record = true;
  std::vector<std::string> signedBodies;
};

// Records every write as {service, property, value} and answers with the
// service's scripted statuses, then 0.
class RecordingSender : public IPCMessageSender {
 public:
  int send(const std::string& service, const std::string& property,
           const std::string& value) override {
    sent.push_back({service, property, value});
    std::deque<int>& script = statuses[service];
    if (script.empty()) {
      return 0;
    }
    const int status = script.front();
    script.pop_front();
    return status;
  }

  std::map<std::string, std::deque<int>> statuses;
  std::vector<std::vector<std::string>> sent;
};

class SilentLogger : public Logger {
 public:
  void debug(const char*, const char*) override {}
  void error(const char*, const char*) override {}
  void info(const char*, const char*) override {}
  void warn(const char*, const char*) override {}
};

}  // namespace nyxtest

#endif  // NYX_TESTS_SUPPORT_FAKES_H
