// Scripted stand-ins for the registration subsystem's collaborators: the
// HTTP transport, the request signer and the bus message sender.
#ifndef NYX_TESTS_REGISTRATION_REGISTRATION_FAKES_H
#define NYX_TESTS_REGISTRATION_REGISTRATION_FAKES_H

#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "daemon/IPCMessageSender.h"
#include "http/HttpClient.h"
#include "http/HttpErrors.h"
#include "http/RequestSigner.h"

namespace registrationtest {

inline WebResponse response(uint32_t status, const std::string& body) {
  WebResponse answer;
  answer.setStatusCode(status);
  answer.setHeader("Content-Type", "application/json");
  answer.setBody(body);
  return answer;
}

// Answers each attempt with the next scripted step; the last step repeats,
// so one failing step stands for a server that keeps failing. The real
// execute() runs on top, with its retries; the waits are only recorded.
class ScriptedHttpClient : public HttpClient {
 public:
  using Step = std::function<WebResponse(const WebRequest&)>;

  void answer(const WebResponse& answer) {
    steps_.push_back([answer](const WebRequest&) { return answer; });
  }
  void failTransport(const std::string& message) {
    steps_.push_back([message](const WebRequest&) -> WebResponse { throw IOError(message); });
  }
  void then(Step step) { steps_.push_back(std::move(step)); }

  WebResponse perform(const WebRequest& request) override {
    requests.push_back(request);
    if (steps_.empty()) {
      throw std::logic_error("unexpected request to " + request.getUrl());
    }
    Step step = steps_.front();
    if (steps_.size() > 1) {
      steps_.pop_front();
    }
    return step(request);
  }
  void waitSeconds(unsigned int seconds) override { waits.push_back(seconds); }

  std::vector<WebRequest> requests;
  std::vector<unsigned int> waits;

 private:
  std::deque<Step> steps_;
};

// Signs with a fixed header and remembers the body each request had when it
// was signed, which must be its final body.
class FakeSigner : public RequestSigner {
 public:
  explicit FakeSigner(std::string directedId) : directedId(std::move(directedId)) {}

  const std::string& getDirectedId() const override { return directedId; }
  void sign(WebRequest& request) override {
    if (!failure.empty()) {
      throw std::runtime_error(failure);
    }
    signedBodies.push_back(request.getBody());
    request.setHeader("X-Test-Signature", "signed-for-" + directedId);
  }
  std::string signPayload(const unsigned char*, size_t) override { return std::string(); }

  std::string directedId;
  std::string failure;
  std::vector<std::string> signedBodies;
};

// Records every property write and answers with the scripted bus status.
class RecordingSender : public IPCMessageSender {
 public:
  struct Write {
    std::string service;
    std::string property;
    std::string value;
  };

  int send(const std::string& service, const std::string& property,
           const std::string& value) override {
    writes.push_back({service, property, value});
    return status;
  }

  int status = 0;
  std::vector<Write> writes;
};

}  // namespace registrationtest

#endif  // NYX_TESTS_REGISTRATION_REGISTRATION_FAKES_H
