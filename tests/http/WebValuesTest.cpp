#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "http/WebRequest.h"
#include "http/WebResponse.h"

namespace {

std::vector<std::pair<std::string, std::string>> entries(const HeaderMap& headers) {
  return {headers.begin(), headers.end()};
}

TEST(WebRequestTest, FreshRequestHasTheDefaults) {
  WebRequest request;
  EXPECT_EQ(request.getUrl(), "");
  EXPECT_TRUE(request.getMethod() == RequestMethod::GET);
  EXPECT_TRUE(request.getHeaders().empty());
  EXPECT_EQ(request.getBody(), "");
  EXPECT_EQ(request.getMaxRetries(), 0u);
  EXPECT_EQ(request.getTimeout(), 30u);
}

TEST(HeaderMapTest, NamesAreCaseInsensitiveAndKeepTheirFirstSpelling) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> writes;
    std::vector<std::pair<std::string, std::string>> expected;
  };
  const Case cases[] = {
      {"overwrite keeps first spelling",
       {{"content-type", "a"}, {"Content-Type", "b"}},
       {{"content-type", "b"}}},
      {"upper case first",
       {{"X-ZVO-REASON", "NUDGE"}, {"x-zvo-reason", "ManualSync"}},
       {{"X-ZVO-REASON", "ManualSync"}}},
      {"iteration is alphabetical without regard to case",
       {{"x-zvo-reason", "1"}, {"Accept", "2"}, {"content-type", "3"}, {"X-Device-Date", "4"}},
       {{"Accept", "2"}, {"content-type", "3"}, {"X-Device-Date", "4"}, {"x-zvo-reason", "1"}}},
      {"similar names stay apart",
       {{"X-A", "1"}, {"X-AB", "2"}, {"x-a", "3"}},
       {{"X-A", "3"}, {"X-AB", "2"}}},
  };
  for (const auto& c : cases) {
    WebRequest request;
    WebResponse response;
    for (const auto& write : c.writes) {
      request.setHeader(write.first, write.second);
      response.setHeader(write.first, write.second);
    }
    EXPECT_EQ(entries(request.getHeaders()), c.expected) << c.name;
    EXPECT_EQ(entries(response.getHeaders()), c.expected) << c.name;
  }
}

TEST(WebResponseTest, HeaderLookupIgnoresCase) {
  WebResponse response;
  response.setHeader("Retry-After", "5");
  for (const char* name : {"Retry-After", "retry-after", "RETRY-AFTER", "rEtRy-AfTeR"}) {
    EXPECT_TRUE(response.hasHeader(name)) << name;
    EXPECT_EQ(response.getHeader(name), "5") << name;
  }
  EXPECT_FALSE(response.hasHeader("Retry-Afte"));
  EXPECT_FALSE(response.hasHeader("Retry-After "));
}

TEST(WebResponseTest, MissingHeaderThrowsWithTheNameAsSpelled) {
  WebResponse response;
  response.setHeader("Content-Type", "text/plain");
  try {
    response.getHeader("X-Missing-Header");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Attempted retrieval of non-existent header: X-Missing-Header");
  }
  EXPECT_EQ(response.getHeaders().size(), 1u);
}

TEST(WebRequestTest, EqualityIsByteExactInEveryMember) {
  WebRequest base;
  base.setUrl("https://example.test/v1/messages?page=2");
  base.setMethod(RequestMethod::POST);
  base.setHeader("Accept", "application/json");
  base.setBody(std::string("a\0b", 3));
  base.setMaxRetries(3);
  base.setTimeout(10);

  struct Case {
    const char* name;
    void (*change)(WebRequest&);
  };
  const Case cases[] = {
      {"url", [](WebRequest& r) { r.setUrl("https://example.test/v1/messages?page=3"); }},
      {"method", [](WebRequest& r) { r.setMethod(RequestMethod::GET); }},
      {"header value", [](WebRequest& r) { r.setHeader("accept", "text/plain"); }},
      {"extra header", [](WebRequest& r) { r.setHeader("x-zvo-reason", "NUDGE"); }},
      {"body after a zero byte", [](WebRequest& r) { r.setBody(std::string("a\0c", 3)); }},
      {"retries", [](WebRequest& r) { r.setMaxRetries(2); }},
      {"timeout", [](WebRequest& r) { r.setTimeout(30); }},
  };
  for (const auto& c : cases) {
    WebRequest changed(base);
    EXPECT_TRUE(changed == base) << c.name;
    c.change(changed);
    EXPECT_FALSE(changed == base) << c.name;
    EXPECT_TRUE(changed != base) << c.name;
  }

  // Header names differing only in case: each map finds the other's name, but
  // the requests are not equal.
  WebRequest lower;
  lower.setHeader("accept", "application/json");
  WebRequest upper;
  upper.setHeader("Accept", "application/json");
  EXPECT_EQ(lower.getHeaders().count("Accept"), 1u);
  EXPECT_FALSE(lower == upper);
}

TEST(WebRequestTest, CopiesAreDeepAndSelfAssignmentKeepsTheValue) {
  WebRequest original;
  original.setUrl("https://a.test/");
  original.setHeader("A", "1");
  WebRequest copy(original);
  WebRequest assigned;
  assigned = original;
  original.setUrl("https://b.test/");
  original.setHeader("A", "2");
  for (const WebRequest* r : {&copy, &assigned}) {
    EXPECT_EQ(r->getUrl(), "https://a.test/");
    EXPECT_EQ(r->getHeaders().at("A"), "1");
  }
  WebRequest& alias = assigned;
  assigned = alias;
  EXPECT_EQ(assigned.getUrl(), "https://a.test/");

  WebResponse response;
  response.setStatusCode(503);
  response.setBody(std::string("x\0y", 3));
  WebResponse responseCopy(response);
  response.setBody("changed");
  EXPECT_EQ(responseCopy.getStatusCode(), 503u);
  EXPECT_EQ(responseCopy.getBody(), std::string("x\0y", 3));
}

TEST(WebRequestTest, BodyFromPointerAndLengthKeepsZeroBytes) {
  const char data[] = {'{', '\0', '}', '\0'};
  WebRequest request;
  request.setBody(data, sizeof data);
  EXPECT_EQ(request.getBody(), std::string(data, sizeof data));
  WebResponse response;
  response.setBody(data, 0);
  EXPECT_EQ(response.getBody(), "");
}

}  // namespace
