// The request handler and the responder from the application's side: what
// it wrote on the bus in, what it receives in "nyx_registration" out. The
// registrar is real, over a real cache file and scripted collaborators.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "registration/NYXRegistrationRequestHandler.h"
#include "tests/registration/RegistrationFakes.h"
#include "tests/support/TestSupport.h"

namespace {

using registrationtest::FakeSigner;
using registrationtest::RecordingSender;
using registrationtest::response;
using registrationtest::ScriptedHttpClient;

const char kService[] = "com.example.app";
const AppInfoMap kApp = {{"service.name", kService}};

class NYXRegistrationRequestHandlerTest : public ::testing::Test {
 protected:
  NYXRegistrationRequestHandlerTest() {
    root_.setConfig({{"url.devicemessaging.registration", "https://m.example.com/register"},
                     {"url.devicemessaging.unregistration", "https://m.example.com/unregister"}});
    cache_ = std::make_shared<NYXRegistrationCache>(root_.file("var/local/cache.db"));
    handler_ = std::make_unique<NYXRegistrationRequestHandler>(
        std::make_shared<NYXRegistrar>("Tessel", cache_, client_, signer_),
        std::make_shared<NYXRegistrationResponder>(sender_));
  }

  // The one answer the application received.
  std::string answer() const {
    EXPECT_EQ(sender_->writes.size(), 1u);
    if (sender_->writes.empty()) {
      return "(no answer)";
    }
    EXPECT_EQ(sender_->writes[0].service, kService);
    EXPECT_EQ(sender_->writes[0].property, "nyx_registration");
    return sender_->writes[0].value;
  }

  nyxtest::NyxRoot root_;
  nyxtest::LogCapture logs_;
  std::shared_ptr<NYXRegistrationCache> cache_;
  std::shared_ptr<ScriptedHttpClient> client_ = std::make_shared<ScriptedHttpClient>();
  std::shared_ptr<FakeSigner> signer_ = std::make_shared<FakeSigner>("account-1");
  std::shared_ptr<RecordingSender> sender_ = std::make_shared<RecordingSender>();
  std::unique_ptr<NYXRegistrationRequestHandler> handler_;
};

TEST_F(NYXRegistrationRequestHandlerTest, SendersTextIsSplitAtRunsOfCommasAndBlanks) {
  const std::string invalidEmpty =
      R"({"error":"InvalidSender","error_description":"'' is not a valid sender."})";
  struct Case {
    std::string sendersText;
    std::string allowedSenders;  // in the request; empty when none is made
    std::string answer;
  };
  const Case cases[] = {
      {"s1", R"(["s1"])", R"({"registration_id":"reg-1"})"},
      {"a, b", R"(["a","b"])", R"({"registration_id":"reg-1"})"},
      {"a,,b", R"(["a","b"])", R"({"registration_id":"reg-1"})"},
      {"a , ,b", R"(["a","b"])", R"({"registration_id":"reg-1"})"},
      {"a,b,", "", invalidEmpty},
      {" a", "", invalidEmpty},
      {"", "", invalidEmpty},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("'" + c.sendersText + "'");
    sender_->writes.clear();
    client_->requests.clear();
    cache_->remove("reg-1");
    client_->answer(response(200, R"({"registrationID":"reg-1"})"));

    handler_->handleRegister(kService, c.sendersText, NYXRegistrationReason::AppInitiated);

    EXPECT_EQ(answer(), c.answer);
    if (c.allowedSenders.empty()) {
      EXPECT_TRUE(client_->requests.empty());
    } else {
      ASSERT_EQ(client_->requests.size(), 1u);
      EXPECT_EQ(client_->requests[0].getBody(),
                R"({"platform":"Tessel","allowedSenders":)" + c.allowedSenders +
                    R"(,"appInfo":{"service.name":"com.example.app"},"target":"DeviceCustomer"})");
    }
  }
}

TEST_F(NYXRegistrationRequestHandlerTest, RegistrationErrorsAreLoggedAndAnswered) {
  struct Case {
    const char* name;
    std::string accountId;
    WebResponse server;
    std::string logLine;
    std::string answer;
  };
  const Case cases[] = {
      {"server rejects a sender", "account-1",
       response(499, R"({"reason":"InvalidSenderId","message":"Sender \"s1\" is not allowed"})"),
       "ERROR NYXRegistrationRequestHandler: NYXRegistrationError: InvalidSender: Sender \"s1\" "
       "is not allowed",
       R"({"error":"InvalidSender","error_description":"Sender \"s1\" is not allowed"})"},
      {"no account", "", response(200, "{}"),
       "ERROR NYXRegistrationRequestHandler: NYXRegistrationError: AuthenticationFailed: "
       "DeviceCustomer scoped NYX registrations require the device to be registered.",
       R"({"error":"AuthenticationFailed","error_description":"DeviceCustomer scoped NYX )"
       R"(registrations require the device to be registered."})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    sender_->writes.clear();
    logs_.clear();
    signer_->directedId = c.accountId;
    client_->answer(c.server);

    handler_->handleRegister(kService, "s1", NYXRegistrationReason::AppInitiated);

    EXPECT_EQ(answer(), c.answer);
    EXPECT_TRUE(logs_.contains(c.logLine));
  }
}

TEST_F(NYXRegistrationRequestHandlerTest, OtherFailuresLeaveTheHandlerWithoutAnAnswer) {
  client_->answer(response(400, "bad request"));

  EXPECT_THROW(handler_->handleRegister(kService, "s1", NYXRegistrationReason::AppInitiated),
               ClientError);
  EXPECT_TRUE(sender_->writes.empty());
}

TEST_F(NYXRegistrationRequestHandlerTest, UnregistrationAnswersWithTheOldIdentifier) {
  struct Case {
    const char* name;
    bool registered;
    std::string answer;
  };
  const Case cases[] = {
      {"registered app", true, R"({"old_registration_id":"reg-1","unregistered":true})"},
      {"unknown app", false, R"({"old_registration_id":"","unregistered":true})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    sender_->writes.clear();
    client_->requests.clear();
    if (c.registered) {
      cache_->store("reg-1", {"s1"}, kApp, {}, NYXRegistrationScope::DeviceCustomer, "account-1");
    }
    client_->answer(response(200, ""));

    handler_->handleUnregister(kService, NYXRegistrationReason::AppInitiated);

    EXPECT_EQ(answer(), c.answer);
    EXPECT_EQ(client_->requests.size(), c.registered ? 1u : 0u);
  }
}

TEST_F(NYXRegistrationRequestHandlerTest, UnreachableServerIsAnsweredAsServiceNotAvailable) {
  cache_->store("reg-1", {"s1"}, kApp, {}, NYXRegistrationScope::DeviceCustomer, "account-1");
  client_->failTransport("Could not resolve host: m.example.com");

  handler_->handleUnregister(kService, NYXRegistrationReason::AppInitiated);

  EXPECT_EQ(answer(), R"({"error":"ServiceNotAvailable",)"
                      R"("error_description":"Could not resolve host: m.example.com"})");
}

TEST_F(NYXRegistrationRequestHandlerTest, ResponderLogsWhatTheBusSaid) {
  const NYXRegistrationError error(NYXRegistrationErrorCode::InvalidSender, "bad");
  struct Case {
    int status;
    bool failure;
    std::string logLine;
  };
  const Case cases[] = {
      {0, false, "INFO NYXRegistrationResponder: Sent successful registration response to svc"},
      {0, true, "INFO NYXRegistrationResponder: Sent failed registration response to svc"},
      {3, false,
       "ERROR NYXRegistrationResponder: Service unroutable or missing property. Service: svc "
       "Property: nyx_registration"},
      {8, true,
       "ERROR NYXRegistrationResponder: Service unroutable or missing property. Service: svc "
       "Property: nyx_registration"},
      {1, false, "WARN NYXRegistrationResponder: Service unresponsive. Service: svc Status: 1"},
      {-5, true, "WARN NYXRegistrationResponder: Service unresponsive. Service: svc Status: -5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logLine);
    logs_.clear();
    sender_->status = c.status;
    NYXRegistrationResponder responder(sender_);

    if (c.failure) {
      responder.respondFailure("svc", error);
    } else {
      responder.respondSuccess("svc", "reg-1", NYXRegistrationState::Registered);
    }

    EXPECT_EQ(logs_.lines(),
              (std::vector<std::string>{std::string("INFO NYXRegistrationResponder: Sending ") +
                                            (c.failure ? "failed" : "successful") +
                                            " registration response to svc",
                                        c.logLine}));
  }
}

}  // namespace
