// Fakes for the messaging suites: an HTTP client that answers by URL, a bus
// sender that records what it sends and answers with scripted statuses, and
// a signer that marks what it signed.
#ifndef NYX_TESTS_MESSAGING_MESSAGING_FAKES_H
#define NYX_TESTS_MESSAGING_MESSAGING_FAKES_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "daemon/IPCMessageSender.h"
#include "http/HttpClient.h"
#include "http/HttpErrors.h"
#include "http/RequestSigner.h"

namespace nyxtest {

// What the fake server answers for one URL, on every attempt.
struct Reply {
  uint32_t status = 200;
  std::string body;
  // Throw IOError with this text instead of answering.
  std::string ioError;
};

// Answers each attempt from the reply registered for the request's URL, so
// that the client's own retries see the same answer again. An unknown URL is
// a 404. Waits are recorded, not slept.
class FakeHttpClient : public HttpClient {
 public:
  void answer(const std::string& url, const std::string& body) { replies[url] = {200, body, ""}; }
  void answer(const std::string& url, const Reply& reply) { replies[url] = reply; }

  WebResponse perform(const WebRequest& request) override {
    requests.push_back(request);
    auto found = replies.find(request.getUrl());
    WebResponse response;
    if (found == replies.end()) {
      response.setStatusCode(404);
      return response;
    }
    if (!found->second.ioError.empty()) {
      throw IOError(found->second.ioError);
    }
    response.setStatusCode(found->second.status);
    response.setBody(found->second.body);
    return response;
  }
  void waitSeconds(unsigned int seconds) override { waits.push_back(seconds); }

  // URLs of the attempts made, in order.
  std::vector<std::string> urls() const {
    std::vector<std::string> result;
    for (const auto& request : requests) {
      result.push_back(request.getUrl());
    }
    return result;
  }

  std::map<std::string, Reply> replies;
  std::vector<WebRequest> requests;
  std::vector<unsigned int> waits;
};

// Records every property write; answers each service with its scripted
// statuses in turn and 0 once they are used up.
class RecordingSender : public IPCMessageSender {
 public:
  struct Sent {
    std::string service;
    std::string property;
    std::string value;
  };

  int send(const std::string& service, const std::string& property,
           const std::string& value) override {
    sent.push_back({service, property, value});
    auto& script = statuses[service];
    if (script.empty()) {
      return 0;
    }
    int status = script.front();
    script.pop_front();
    return status;
  }

  // The values written to one service, in order.
  std::vector<std::string> valuesTo(const std::string& service) const {
    std::vector<std::string> result;
    for (const auto& entry : sent) {
      if (entry.service == service) {
        result.push_back(entry.value);
      }
    }
    return result;
  }

  std::map<std::string, std::deque<int>> statuses;
  std::vector<Sent> sent;
};

class FakeSigner : public RequestSigner {
 public:
  const std::string& getDirectedId() const override { return directedId_; }
  void sign(WebRequest& request) override { request.setHeader("x-test-signed", "yes"); }
  std::string signPayload(const unsigned char*, size_t) override { return "signature"; }

 private:
  std::string directedId_ = "customer";
};

}  // namespace nyxtest

#endif  // NYX_TESTS_MESSAGING_MESSAGING_FAKES_H
