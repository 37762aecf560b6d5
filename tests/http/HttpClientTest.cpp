// The retry loop of HttpClient::execute, driven by a client whose perform()
// plays a script and whose waits are recorded instead of slept.
#include <gtest/gtest.h>

#include <cstdint>
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

using Step = std::function<WebResponse()>;

Step answer(uint32_t status, const std::vector<std::pair<std::string, std::string>>& headers = {},
            const std::string& body = "") {
  return [=] {
    WebResponse response;
    response.setStatusCode(status);
    for (const auto& header : headers) {
      response.setHeader(header.first, header.second);
    }
    response.setBody(body);
    return response;
  };
}

Step fail(const std::string& message) {
  return [=]() -> WebResponse { throw IOError(message); };
}

Step retryAfter(const std::string& value) { return answer(503, {{"Retry-After", value}}); }

class ScriptedClient : public HttpClient {
 public:
  explicit ScriptedClient(std::vector<Step> steps) : steps_(std::move(steps)) {}

  WebResponse perform(const WebRequest& request) override {
    EXPECT_EQ(request.getUrl(), "https://messaging.example/poll");
    if (performed_ >= steps_.size()) {
      ADD_FAILURE() << "perform() called more often than scripted";
      return WebResponse();
    }
    return steps_[performed_++]();
  }
  void waitSeconds(unsigned int seconds) override { waits_.push_back(seconds); }

  size_t performed() const { return performed_; }
  const std::vector<unsigned int>& waits() const { return waits_; }

 private:
  std::vector<Step> steps_;
  size_t performed_ = 0;
  std::vector<unsigned int> waits_;
};

WebRequest pollRequest(uint32_t maxRetries) {
  WebRequest request;
  request.setUrl("https://messaging.example/poll");
  request.setMaxRetries(maxRetries);
  return request;
}

enum class Outcome { kReturns, kClientError, kServerError, kIOError };

struct RetryCase {
  const char* name;
  uint32_t maxRetries;
  std::vector<Step> steps;
  // Inclusive bounds of each wait, in order.
  std::vector<std::pair<unsigned int, unsigned int>> waits;
  Outcome outcome;
  // The final status, or for kIOError the error's message.
  uint32_t status;
  std::string message = "";
};

// The random part of every wait is drawn anew, so each case runs often
// enough that a wrong bound or a missing random part shows.
const int kRuns = 200;

TEST(HttpClientTest, RetriesOnTheScheduleAndEndsWithTheRightOutcome) {
  const RetryCase cases[] = {
      {"no retries, transport failure", 0, {fail("down")}, {}, Outcome::kIOError, 0, "down"},
      {"no retries, 503 still waits once", 0, {answer(503)}, {{5, 9}}, Outcome::kServerError, 503},
      {"four transport failures",
       3,
       {fail("e1"), fail("e2"), fail("e3"), fail("e4")},
       {{5, 9}, {10, 19}, {20, 39}},
       Outcome::kIOError,
       0,
       "e4"},
      {"transport failure then success",
       3,
       {fail("e1"), answer(200)},
       {{5, 9}},
       Outcome::kReturns,
       200},
      {"503 then success", 1, {answer(503), answer(200)}, {{5, 9}}, Outcome::kReturns, 200},
      {"the base doubles and stays at 160",
       6,
       {answer(500), answer(502), answer(503), answer(504), answer(500), answer(500), answer(599)},
       {{5, 9}, {10, 19}, {20, 39}, {40, 79}, {80, 159}, {160, 299}, {160, 299}},
       Outcome::kServerError,
       599},
      {"Retry-After 120 then 503",
       1,
       {retryAfter("120"), answer(503)},
       {{120, 239}, {240, 299}},
       Outcome::kServerError,
       503},
      {"Retry-After 301 ends at once", 3, {retryAfter("301")}, {}, Outcome::kServerError, 503},
      {"negative Retry-After counts as huge",
       3,
       {retryAfter("-1")},
       {},
       Outcome::kServerError,
       503},
      {"Retry-After 300 waits exactly 300",
       0,
       {retryAfter("300")},
       {{300, 300}},
       Outcome::kServerError,
       503},
      {"Retry-After 300 stays the base",
       1,
       {retryAfter("300"), answer(503)},
       {{300, 300}, {300, 300}},
       Outcome::kServerError,
       503},
      {"Retry-After as an HTTP date reads as 0",
       0,
       {retryAfter("Wed, 21 Oct 2015 07:28:00 GMT")},
       {{5, 9}},
       Outcome::kServerError,
       503},
      {"Retry-After below the wait does not shorten it",
       2,
       {fail("e1"), retryAfter("2"), answer(200)},
       {{5, 9}, {10, 19}},
       Outcome::kReturns,
       200},
      {"Retry-After in lower case is found",
       0,
       {answer(503, {{"retry-after", "200"}})},
       {{200, 299}},
       Outcome::kServerError,
       503},
      {"404 is not retried",
       3,
       {answer(404, {{"Retry-After", "1"}})},
       {},
       Outcome::kClientError,
       404},
      {"499 is not retried", 3, {answer(499)}, {}, Outcome::kClientError, 499},
      {"302 is returned", 3, {answer(302)}, {}, Outcome::kReturns, 302},
      {"204 is returned", 3, {answer(204)}, {}, Outcome::kReturns, 204},
      {"a retry count that wraps makes no attempt", UINT32_MAX, {}, {}, Outcome::kReturns, 0},
  };
  for (const auto& c : cases) {
    std::set<unsigned int> firstWaits;
    for (int run = 0; run < kRuns; ++run) {
      ScriptedClient client(c.steps);
      WebResponse response;
      Outcome outcome = Outcome::kReturns;
      std::string message;
      try {
        response = client.execute(pollRequest(c.maxRetries));
      } catch (const ServerError& error) {
        outcome = Outcome::kServerError;
        response = error.getResponse();
      } catch (const IOError& error) {
        outcome = Outcome::kIOError;
        message = error.what();
      } catch (const ClientError& error) {
        outcome = Outcome::kClientError;
        response = error.getResponse();
      }
      ASSERT_EQ(static_cast<int>(outcome), static_cast<int>(c.outcome)) << c.name;
      if (outcome == Outcome::kIOError) {
        EXPECT_EQ(message, c.message) << c.name;
      } else {
        EXPECT_EQ(response.getStatusCode(), c.status) << c.name;
      }
      EXPECT_EQ(client.performed(), c.steps.size()) << c.name;
      ASSERT_EQ(client.waits().size(), c.waits.size()) << c.name;
      for (size_t i = 0; i < c.waits.size(); ++i) {
        EXPECT_GE(client.waits()[i], c.waits[i].first) << c.name << ", wait " << i;
        EXPECT_LE(client.waits()[i], c.waits[i].second) << c.name << ", wait " << i;
      }
      if (!client.waits().empty()) {
        firstWaits.insert(client.waits().front());
      }
    }
    if (!c.waits.empty() && c.waits.front().first != c.waits.front().second) {
      EXPECT_GT(firstWaits.size(), 1u) << c.name << ": the wait has no random part";
    }
  }
}

// Thrown by reference to itself, so a test can tell the very object from a
// copy.
class MarkedError : public IOError {
 public:
  MarkedError() : IOError("marked") { origin = this; }
  MarkedError(const MarkedError& other) : IOError(other) {}
  static const MarkedError* origin;
};
const MarkedError* MarkedError::origin = nullptr;

TEST(HttpClientTest, LastTransportFailurePropagatesAsTheVeryObjectThrown) {
  for (uint32_t maxRetries : {0u, 2u}) {
    std::vector<Step> steps(maxRetries + 1, []() -> WebResponse { throw MarkedError(); });
    ScriptedClient client(steps);
    try {
      client.execute(pollRequest(maxRetries));
      FAIL() << "no exception";
    } catch (const MarkedError& error) {
      EXPECT_EQ(&error, MarkedError::origin) << maxRetries;
      EXPECT_STREQ(error.what(), "marked");
    }
  }
}

TEST(HttpClientTest, OtherErrorsOfTheTransportPassAtOnce) {
  ScriptedClient client(
      {[]() -> WebResponse { throw std::runtime_error("Failed to initialize curl"); }});
  try {
    client.execute(pollRequest(3));
    FAIL() << "no exception";
  } catch (const IOError&) {
    FAIL() << "set-up fault became an IOError";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Failed to initialize curl");
  }
  EXPECT_EQ(client.performed(), 1u);
  EXPECT_TRUE(client.waits().empty());
}

TEST(HttpClientTest, LogsEachAttemptAndWhyItRetries) {
  struct Case {
    const char* name;
    uint32_t maxRetries;
    std::vector<Step> steps;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"transport failures",
       2,
       {fail("Timeout was reached: slow"), fail("Couldn't connect to server: "), answer(200)},
       {"INFO HttpClient: Making request to https://messaging.example/poll",
        "ERROR HttpClient: IOError: Timeout was reached: slow", "INFO HttpClient: Retry 1",
        "ERROR HttpClient: IOError: Couldn't connect to server: ", "INFO HttpClient: Retry 2"}},
      {"Retry-After too long",
       3,
       {retryAfter("301")},
       {"INFO HttpClient: Making request to https://messaging.example/poll",
        "ERROR HttpClient: Server retry of 301 is too long, try again later"}},
      {"5xx retried silently",
       1,
       {answer(503), answer(503)},
       {"INFO HttpClient: Making request to https://messaging.example/poll",
        "INFO HttpClient: Retry 1"}},
  };
  for (const auto& c : cases) {
    nyxtest::LogCapture log;
    ScriptedClient client(c.steps);
    try {
      client.execute(pollRequest(c.maxRetries));
    } catch (const std::exception&) {
    }
    EXPECT_EQ(log.lines(), c.lines) << c.name;
  }
}

TEST(HttpClientTest, WaitSecondsLogsTheWait) {
  class SleepingClient : public HttpClient {
   public:
    WebResponse perform(const WebRequest&) override { return WebResponse(); }
  };
  nyxtest::LogCapture log;
  SleepingClient client;
  client.waitSeconds(0);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"INFO HttpClient: Waiting for 0 seconds before next attempt"});
}

TEST(HttpErrorsTest, MessagesCarryStatusHeadersInMapOrderAndBody) {
  struct Case {
    uint32_t status;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string expected;
  };
  const Case cases[] = {
      {404,
       {{"X-Id", "7"}, {"content-type", "text/plain"}, {"Retry-After", "5"}},
       "not here",
       "Status Code: 404\ncontent-type: text/plain\nRetry-After: 5\nX-Id: 7\nnot here"},
      {503, {}, "", "Status Code: 503\n"},
      // what() is a C string: a body's zero byte ends the message there;
      // getResponse() keeps every byte.
      {500, {{"X-A", "b: c"}}, std::string("a\0b\n", 4), "Status Code: 500\nX-A: b: c\na"},
  };
  for (const auto& c : cases) {
    WebResponse response = answer(c.status, c.headers, c.body)();
    EXPECT_EQ(ClientError(response).what(), c.expected);
    EXPECT_EQ(ServerError(response).what(), c.expected);
    EXPECT_EQ(ServerError(response).getResponse().getBody(), c.body);
  }
}

TEST(HttpErrorsTest, RaiseRethrowsTheFullTypeFromABaseReference) {
  WebResponse response = answer(503, {{"X-Id", "9"}}, "busy")();
  const ServerError server(response);
  const IOError& asIOError = server;
  try {
    asIOError.raise();
    FAIL() << "no exception";
  } catch (const ServerError& error) {
    EXPECT_NE(&error, &server);
    EXPECT_EQ(error.getResponse().getHeader("x-id"), "9");
    EXPECT_STREQ(error.what(), server.what());
  }

  const ClientError client(answer(404)());
  try {
    client.raise();
    FAIL() << "no exception";
  } catch (const ClientError& error) {
    EXPECT_EQ(error.getResponse().getStatusCode(), 404u);
  }

  const IOError plain("down");
  try {
    plain.raise();
    FAIL() << "no exception";
  } catch (const ServerError&) {
    FAIL() << "a plain IOError came back as a ServerError";
  } catch (const IOError& error) {
    EXPECT_STREQ(error.what(), "down");
  }
}

}  // namespace
