// The retry loop of HttpClient::execute against a scripted transport whose
// waits are recorded instead of slept, the error types, and the request value.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "http/HttpClient.h"
#include "http/HttpErrors.h"
#include "tests/support/TestSupport.h"

namespace {

// A transport failure of a type of its own, so that a sliced copy shows.
struct TransportError : IOError {
  using IOError::IOError;
};

// A step is "!text" (TransportError), "?text" (std::runtime_error) or
// "STATUS [Name: value]".
WebResponse answer(const std::string& step) {
  if (step[0] == '!') throw TransportError(step.substr(1));
  if (step[0] == '?') throw std::runtime_error(step.substr(1));
  WebResponse response;
  response.setStatusCode(std::stoul(step));
  const size_t space = step.find(' '), colon = step.find(": ");
  if (colon != std::string::npos) {
    response.setHeader(step.substr(space + 1, colon - space - 1), step.substr(colon + 2));
  }
  return response;
}

class ScriptedClient : public HttpClient {
 public:
  explicit ScriptedClient(std::vector<std::string> steps) : steps_(std::move(steps)) {}
  WebResponse perform(const WebRequest& request) override {
    EXPECT_EQ(request.getUrl(), "https://messaging.example/poll");
    return answer(performed < steps_.size() ? steps_[performed++] : "?performed too often");
  }
  void waitSeconds(unsigned int seconds) override { waits.push_back(seconds); }
  WebResponse run(uint32_t maxRetries) {
    WebRequest request;
    request.setUrl("https://messaging.example/poll");
    request.setMaxRetries(maxRetries);
    return execute(request);
  }

  size_t performed = 0;
  std::vector<unsigned int> waits;

 private:
  std::vector<std::string> steps_;
};

// How a call ended: "returns N", "ClientError N", "ServerError N",
// "IOError text" for a TransportError, else "other text".
std::string outcome(const std::function<WebResponse()>& call) {
  try {
    return "returns " + std::to_string(call().getStatusCode());
  } catch (const ServerError& e) {
    return "ServerError " + std::to_string(e.getResponse().getStatusCode());
  } catch (const ClientError& e) {
    return "ClientError " + std::to_string(e.getResponse().getStatusCode());
  } catch (const TransportError& e) {
    return std::string("IOError ") + e.what();
  } catch (const std::exception& e) {
    return std::string("other ") + e.what();
  }
}

TEST(HttpClientTest, RetriesOnTheScheduleAndEndsWithTheRightOutcome) {
  using Waits = std::vector<std::pair<unsigned, unsigned>>;  // inclusive bounds, in order
  struct Case {
    uint32_t maxRetries;
    std::vector<std::string> steps;
    Waits waits;
    std::string outcome;
  };
  const Case cases[] = {
      {0, {"!down"}, {}, "IOError down"},
      {0, {"503"}, {{5, 9}}, "ServerError 503"},  // the last attempt still waits
      {3, {"!e1", "!e2", "!e3", "!e4"}, {{5, 9}, {10, 19}, {20, 39}}, "IOError e4"},
      {3, {"!e1", "200"}, {{5, 9}}, "returns 200"},
      {6,
       {"500", "502", "503", "504", "500", "500", "599"},
       {{5, 9}, {10, 19}, {20, 39}, {40, 79}, {80, 159}, {160, 299}, {160, 299}},
       "ServerError 599"},
      {1, {"503 Retry-After: 120", "503"}, {{120, 239}, {240, 299}}, "ServerError 503"},
      {3, {"503 Retry-After: 301"}, {}, "ServerError 503"},
      {3, {"503 Retry-After: -1"}, {}, "ServerError 503"},
      {1, {"503 Retry-After: 300", "503"}, {{300, 300}, {300, 300}}, "ServerError 503"},
      {0, {"503 Retry-After: Wed, 21 Oct 2015 07:28:00 GMT"}, {{5, 9}}, "ServerError 503"},
      {2, {"!e1", "503 Retry-After: 2", "200"}, {{5, 9}, {10, 19}}, "returns 200"},
      {0, {"503 retry-after: 200"}, {{200, 299}}, "ServerError 503"},
      {3, {"404 Retry-After: 1"}, {}, "ClientError 404"},
      {3, {"499"}, {}, "ClientError 499"},
      {3, {"302"}, {}, "returns 302"},
      {3, {"?Failed to initialize curl"}, {}, "other Failed to initialize curl"},
      {UINT32_MAX, {}, {}, "returns 0"},  // the attempt count wraps to 0
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("case " + std::to_string(&c - cases));
    // The random part is drawn anew each time: run often enough that a wrong
    // bound or a missing random part shows.
    std::set<unsigned> firstWaits;
    for (int run = 0; run < 200; ++run) {
      ScriptedClient client(c.steps);
      ASSERT_EQ(outcome([&] { return client.run(c.maxRetries); }), c.outcome);
      EXPECT_EQ(client.performed, c.steps.size());
      ASSERT_EQ(client.waits.size(), c.waits.size());
      for (size_t i = 0; i < c.waits.size(); ++i) {
        EXPECT_GE(client.waits[i], c.waits[i].first) << "wait " << i;
        EXPECT_LE(client.waits[i], c.waits[i].second) << "wait " << i;
      }
      if (!c.waits.empty()) firstWaits.insert(client.waits[0]);
    }
    if (!c.waits.empty() && c.waits[0].first != c.waits[0].second) {
      EXPECT_GT(firstWaits.size(), 1u) << "the wait has no random part";
    }
  }
}

TEST(HttpClientTest, LogsEachAttemptAndWhyItRetries) {
  nyxtest::LogCapture log;
  ScriptedClient client({"!Timeout was reached: slow", "503", "503 Retry-After: 301"});
  outcome([&] { return client.run(3); });
  client.HttpClient::waitSeconds(0);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "INFO HttpClient: Making request to https://messaging.example/poll",
                             "ERROR HttpClient: IOError: Timeout was reached: slow",
                             "INFO HttpClient: Retry 1", "INFO HttpClient: Retry 2",
                             "ERROR HttpClient: Server retry of 301 is too long, try again later",
                             "INFO HttpClient: Waiting for 0 seconds before next attempt"}));
}

TEST(HttpErrorsTest, MessagesListStatusHeadersInMapOrderAndBodyAndRaiseKeepsTheType) {
  WebResponse response = answer("500 X-Id: 7");
  response.setHeader("content-type", "text/plain");
  response.setHeader("X-A", "b: c");
  response.setBody(std::string("not\0here", 8));
  // what() is a C string, so it ends at the body's zero byte.
  const std::string expected =
      "Status Code: 500\ncontent-type: text/plain\nX-A: b: c\nX-Id: 7\nnot";
  EXPECT_EQ(ClientError(response).what(), expected);
  EXPECT_EQ(ServerError(response).what(), expected);
  EXPECT_EQ(ServerError(response).getResponse().getBody(), response.getBody());

  const ServerError server(response);
  const IOError& asIOError = server;
  EXPECT_EQ(outcome([&] { asIOError.raise(); return WebResponse(); }), "ServerError 500");
  const ClientError client(answer("404"));
  EXPECT_EQ(outcome([&] { client.raise(); return WebResponse(); }), "ClientError 404");
  const IOError plain("down");
  EXPECT_EQ(outcome([&] { plain.raise(); return WebResponse(); }), "other down");
}

TEST(WebValuesTest, EqualityAndAssignmentCoverEveryMemberByteForByte) {
  WebRequest base;
  base.setUrl("https://example.test/v1/messages?page=2");
  base.setMethod(RequestMethod::POST);
  base.setHeader("Accept", "application/json");
  base.setBody(std::string("a\0b", 3));
  base.setMaxRetries(3);
  base.setTimeout(10);
  const std::function<void(WebRequest&)> changes[] = {
      [](WebRequest& r) { r.setUrl("https://example.test/v1/messages?page=3"); },
      [](WebRequest& r) { r.setMethod(RequestMethod::GET); },
      [](WebRequest& r) { r.setHeader("accept", "text/plain"); },
      [](WebRequest& r) { r.setHeader("x-zvo-reason", "NUDGE"); },
      [](WebRequest& r) { r.setBody(std::string("a\0c", 3)); },
      [](WebRequest& r) { r.setMaxRetries(2); },
      [](WebRequest& r) { r.setTimeout(30); },
  };
  for (size_t i = 0; i < std::size(changes); ++i) {
    SCOPED_TRACE(i);
    WebRequest changed;
    changed = base;
    EXPECT_TRUE(changed == base);
    changes[i](changed);
    EXPECT_TRUE(changed != base);
  }
  // Names differing only in letter case find each other but are not equal.
  WebRequest lower, upper;
  lower.setHeader("accept", "x");
  upper.setHeader("Accept", "x");
  EXPECT_EQ(lower.getHeaders().count("Accept"), 1u);
  EXPECT_FALSE(lower == upper);

  try {
    answer("200 Content-Type: text/plain").getHeader("X-Missing");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Attempted retrieval of non-existent header: X-Missing");
  }
}

}  // namespace
