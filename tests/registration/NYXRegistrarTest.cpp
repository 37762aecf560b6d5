// The registrar with a real cache file, a scripted HTTP transport under the
// real retrying client, and a fake signer.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "registration/NYXRegistrar.h"
#include "registration/NYXRegistrationError.h"
#include "tests/registration/RegistrationFakes.h"
#include "tests/support/TestSupport.h"

namespace {

using registrationtest::FakeSigner;
using registrationtest::response;
using registrationtest::ScriptedHttpClient;

const char kRegisterUrl[] = "https://messaging.example.com/v1/register?device=1";
const char kUnregisterUrl[] = "https://messaging.example.com/v1/unregister";
const AppInfoMap kApp = {{"service.name", "com.example.app"}};
const AppInfoMap kNoInstance;
const char kAppText[] = "service.name=>com.example.app";

// What an operation ended with, as one comparable text: the kind of
// exception and its what(), or the value returned.
std::string outcomeOf(const std::function<std::string()>& operation) {
  try {
    return "returned " + operation();
  } catch (const NYXRegistrationError& error) {
    return "NYXRegistrationError " + std::string(error.what());
  } catch (const ClientError& error) {
    return "ClientError " + std::string(error.what());
  } catch (const IOError& error) {
    return "IOError " + std::string(error.what());
  } catch (const std::runtime_error& error) {
    return "runtime_error " + std::string(error.what());
  }
}

class NYXRegistrarTest : public ::testing::Test {
 protected:
  NYXRegistrarTest() {
    root_.setConfig({{"url.devicemessaging.registration", kRegisterUrl},
                     {"url.devicemessaging.unregistration", kUnregisterUrl}});
    cache_ = std::make_shared<NYXRegistrationCache>(root_.file("var/local/cache.db"));
    registrar_ = std::make_shared<NYXRegistrar>("Tessel", cache_, client_, signer_);
  }

  std::string registerApp(const SenderList& senders,
                          const NYXRegistrationScope& scope = NYXRegistrationScope::DeviceCustomer,
                          const AppInfoMap& instance = kNoInstance) {
    return registrar_->registerApp(senders, kApp, instance, scope,
                                   NYXRegistrationReason::AppInitiated);
  }
  std::string cachedForUnregistration() {
    return cache_->findForUnregistration(kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                                         signer_->directedId);
  }

  nyxtest::NyxRoot root_;
  nyxtest::LogCapture logs_;
  std::shared_ptr<NYXRegistrationCache> cache_;
  std::shared_ptr<ScriptedHttpClient> client_ = std::make_shared<ScriptedHttpClient>();
  std::shared_ptr<FakeSigner> signer_ = std::make_shared<FakeSigner>("account-1");
  std::shared_ptr<NYXRegistrar> registrar_;
};

TEST_F(NYXRegistrarTest, RegistrationRequestHasTheExactHeadersAndBodyAndIsSignedLast) {
  struct Case {
    const char* name;
    SenderList senders;
    AppInfoMap instance;
    const NYXRegistrationScope& scope;
    const NYXRegistrationReason& reason;
    std::string body;
  };
  const Case cases[] = {
      {"no instance info: the member is left out",
       {"s1", "s2"},
       {},
       NYXRegistrationScope::DeviceCustomer,
       NYXRegistrationReason::AppInitiated,
       R"({"platform":"Tessel","allowedSenders":["s1","s2"],)"
       R"("appInfo":{"service.name":"com.example.app"},"target":"DeviceCustomer"})"},
      {"instance info in key order, senders neither sorted nor made unique",
       {"zz", " padded ", "zz"},
       {{"pid", "42"}, {"instance", "a\"b"}},
       NYXRegistrationScope::Device,
       NYXRegistrationReason::Unroutable,
       R"({"platform":"Tessel","allowedSenders":["zz"," padded ","zz"],)"
       R"("appInfo":{"service.name":"com.example.app"},)"
       R"("appInstanceInfo":{"instance":"a\"b","pid":"42"},"target":"Device"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    client_->requests.clear();
    signer_->signedBodies.clear();
    cache_->remove("reg-1");
    client_->answer(response(200, R"({"registrationID":"reg-1","other":1})"));

    EXPECT_EQ(registrar_->registerApp(c.senders, kApp, c.instance, c.scope, c.reason), "reg-1");

    ASSERT_EQ(client_->requests.size(), 1u);
    const WebRequest& request = client_->requests[0];
    EXPECT_EQ(request.getUrl(), kRegisterUrl);
    EXPECT_EQ(request.getMethod(), RequestMethod::POST);
    EXPECT_EQ(request.getHeaders(), (HeaderMap{{"accept", "application/json"},
                                               {"content-type", "application/json"},
                                               {"x-zvo-reason", c.reason.name()},
                                               {"X-Test-Signature", "signed-for-account-1"}}));
    EXPECT_EQ(request.getMaxRetries(), 3u);
    EXPECT_EQ(request.getBody(), c.body);
    EXPECT_EQ(signer_->signedBodies, std::vector<std::string>{c.body});
  }
}

TEST_F(NYXRegistrarTest, SuccessfulRegistrationIsCachedAndLogged) {
  client_->answer(response(200, R"({"registrationID":"reg-1"})"));

  EXPECT_EQ(registerApp({"s1", "s2"}), "reg-1");

  EXPECT_EQ(cache_->findForRegistration({"s1", "s2"}, kApp, kNoInstance,
                                        NYXRegistrationScope::DeviceCustomer, "account-1"),
            "reg-1");
  EXPECT_EQ(logs_.lines(),
            (std::vector<std::string>{
                "INFO NYXRegistrar: Request to register app '" + std::string(kAppText) +
                    "' with senders 's1, s2' due to 'AppInitiated'",
                "INFO HttpClient: Making request to " + std::string(kRegisterUrl),
                "INFO NYXRegistrar: Successfully registered app '" + std::string(kAppText) +
                    "'. RegistrationId is 'reg-1'"}));
}

TEST_F(NYXRegistrarTest, InvalidSendersAreRejectedBeforeAnyRequest) {
  struct Case {
    SenderList senders;
    std::string description;
  };
  const Case cases[] = {
      {{}, "NYX registration requires at least one sender."},
      {{"a", "  "}, "'  ' is not a valid sender."},
      {{""}, "'' is not a valid sender."},
      {{"\t\n", ""}, "'\t\n' is not a valid sender."},
      {{"a", "", " "}, "'' is not a valid sender."},
  };
  for (const auto& c : cases) {
    try {
      registerApp(c.senders);
      ADD_FAILURE() << "accepted " << c.description;
    } catch (const NYXRegistrationError& error) {
      EXPECT_EQ(error,
                NYXRegistrationError(NYXRegistrationErrorCode::InvalidSender, c.description));
    }
  }
  EXPECT_TRUE(client_->requests.empty());
}

// The account check comes after the cache, so an application registered
// while an account was present keeps its answer.
TEST_F(NYXRegistrarTest, CacheIsConsultedBeforeTheAccountCheck) {
  struct Case {
    const char* name;
    std::string accountId;
    bool cached;
    std::string outcome;
  };
  const Case cases[] = {
      {"cached, with account", "account-1", true, "returned reg-cached"},
      {"cached, no account", "", true, "returned reg-cached"},
      {"not cached, no account", "", false,
       "NYXRegistrationError AuthenticationFailed: DeviceCustomer scoped NYX registrations "
       "require the device to be registered."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    logs_.clear();
    signer_->directedId = c.accountId;
    cache_->remove("reg-cached");
    if (c.cached) {
      cache_->store("reg-cached", {"s1"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                    c.accountId);
    }

    EXPECT_EQ(outcomeOf([&] { return registerApp({"s1"}); }), c.outcome);

    EXPECT_TRUE(client_->requests.empty());
    std::vector<std::string> expectedLogs;
    if (c.cached) {
      expectedLogs.push_back("WARN NYXRegistrar: Spurious call for registration of app '" +
                             std::string(kAppText) +
                             "' with senders 's1' due to 'AppInitiated', has been ignored");
    }
    EXPECT_EQ(logs_.lines(), expectedLogs);
  }
}

TEST_F(NYXRegistrarTest, DeviceScopeNeedsNoAccount) {
  signer_->directedId = "";
  client_->answer(response(200, R"({"registrationID":"reg-device"})"));

  EXPECT_EQ(registerApp({"s1"}, NYXRegistrationScope::Device), "reg-device");
}

TEST_F(NYXRegistrarTest, FailedRegistrationLeavesTheCacheUntouched) {
  const std::string rejected = R"({"reason":"InvalidSenderId","message":"Sender s1 is unknown"})";
  struct Case {
    const char* name;
    std::function<void(ScriptedHttpClient&)> script;
    std::string outcome;
  };
  const Case cases[] = {
      {"499 rejecting a sender", [&](ScriptedHttpClient& c) { c.answer(response(499, rejected)); },
       "NYXRegistrationError InvalidSender: Sender s1 is unknown"},
      {"499 for another reason",
       [](ScriptedHttpClient& c) {
         c.answer(response(499, R"({"reason":"Throttled","message":"later"})"));
       },
       "ClientError Status Code: 499\nContent-Type: application/json\n"
       R"({"reason":"Throttled","message":"later"})"},
      {"499 that is not JSON",
       [](ScriptedHttpClient& c) { c.answer(response(499, "InvalidSenderId")); },
       "ClientError Status Code: 499\nContent-Type: application/json\nInvalidSenderId"},
      {"400 with the rejection body",
       [&](ScriptedHttpClient& c) { c.answer(response(400, rejected)); },
       "ClientError Status Code: 400\nContent-Type: application/json\n" + rejected},
      {"transport failure on every attempt",
       [](ScriptedHttpClient& c) { c.failTransport("Couldn't connect to server: refused"); },
       "NYXRegistrationError ServiceNotAvailable: Couldn't connect to server: refused"},
      {"server error on every attempt",
       [](ScriptedHttpClient& c) { c.answer(response(503, "busy")); },
       "NYXRegistrationError ServiceNotAvailable: Status Code: 503\n"
       "Content-Type: application/json\nbusy"},
      {"success without registrationID",
       [](ScriptedHttpClient& c) { c.answer(response(200, R"({"registrationId":"reg-1"})")); },
       "runtime_error Registration response has no registrationID"},
      {"registrationID that is not a string",
       [](ScriptedHttpClient& c) { c.answer(response(200, R"({"registrationID":7})")); },
       "runtime_error Registration response has no registrationID"},
      {"success that is not JSON",
       [](ScriptedHttpClient& c) { c.answer(response(200, "<html>ok</html>")); },
       "runtime_error Registration response is not a JSON object"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    logs_.clear();
    auto client = std::make_shared<ScriptedHttpClient>();
    c.script(*client);
    NYXRegistrar registrar("Tessel", cache_, client, signer_);

    EXPECT_EQ(outcomeOf([&] {
                return registrar.registerApp({"s1"}, kApp, kNoInstance,
                                             NYXRegistrationScope::DeviceCustomer,
                                             NYXRegistrationReason::AppInitiated);
              }),
              c.outcome);

    EXPECT_EQ(cachedForUnregistration(), "");
    EXPECT_EQ(logs_.count("Successfully registered"), 0u);
  }
}

TEST_F(NYXRegistrarTest, SigningFailurePassesUnchangedAndSendsNothing) {
  signer_->failure = "Request Signing Failure. StatusCode: 2 DirectedId: account-1";

  EXPECT_EQ(outcomeOf([&] { return registerApp({"s1"}); }),
            "runtime_error Request Signing Failure. StatusCode: 2 DirectedId: account-1");
  EXPECT_TRUE(client_->requests.empty());
}

TEST_F(NYXRegistrarTest, UnregisteringAnUnknownAppMakesNoRequest) {
  EXPECT_EQ(registrar_->unregisterApp(kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                                      NYXRegistrationReason::AppInitiated),
            "");

  EXPECT_TRUE(client_->requests.empty());
  EXPECT_EQ(logs_.lines(),
            std::vector<std::string>{
                "WARN NYXRegistrar: Spurious call for unregistration of app '" +
                std::string(kAppText) + "' due to 'AppInitiated', has been ignored"});
}

// The entry goes before the server is asked, so a failed revocation still
// leaves the application unregistered on the device.
TEST_F(NYXRegistrarTest, UnregistrationRemovesTheCacheEntryBeforeTheRequest) {
  struct Case {
    const char* name;
    WebResponse answer;
    std::string outcome;
  };
  const Case cases[] = {
      {"server accepts", response(200, "ignored, not JSON"), "returned reg-1"},
      {"server fails", response(500, "down"),
       "NYXRegistrationError ServiceNotAvailable: Status Code: 500\n"
       "Content-Type: application/json\ndown"},
      {"server refuses", response(404, "gone"),
       "ClientError Status Code: 404\nContent-Type: application/json\ngone"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    cache_->store("reg-1", {"s1"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                  "account-1");
    auto client = std::make_shared<ScriptedHttpClient>();
    std::vector<std::string> cachedAtRequest;
    client->then([&](const WebRequest&) {
      cachedAtRequest.push_back(cachedForUnregistration());
      return c.answer;
    });
    NYXRegistrar registrar("Tessel", cache_, client, signer_);

    EXPECT_EQ(outcomeOf([&] {
                return registrar.unregisterApp(kApp, kNoInstance,
                                               NYXRegistrationScope::DeviceCustomer,
                                               NYXRegistrationReason::Unroutable);
              }),
              c.outcome);

    ASSERT_FALSE(client->requests.empty());
    EXPECT_EQ(cachedAtRequest.front(), "");
    EXPECT_EQ(cachedForUnregistration(), "");
    const WebRequest& request = client->requests[0];
    EXPECT_EQ(request.getUrl(), kUnregisterUrl);
    EXPECT_EQ(request.getMethod(), RequestMethod::POST);
    EXPECT_EQ(request.getHeaders(), (HeaderMap{{"accept", "application/json"},
                                               {"content-type", "application/json"},
                                               {"x-zvo-reason", "Unroutable"},
                                               {"X-Test-Signature", "signed-for-account-1"}}));
    EXPECT_EQ(request.getMaxRetries(), 3u);
    EXPECT_EQ(request.getBody(), R"({"registrationId":"reg-1"})");
  }
}

TEST_F(NYXRegistrarTest, SuccessfulUnregistrationIsLogged) {
  cache_->store("reg-1", {"s1"}, kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                "account-1");
  client_->answer(response(200, ""));

  registrar_->unregisterApp(kApp, kNoInstance, NYXRegistrationScope::DeviceCustomer,
                            NYXRegistrationReason::AppInitiated);

  EXPECT_TRUE(logs_.contains("INFO NYXRegistrar: Request to unregister app '" +
                             std::string(kAppText) + "' due to 'AppInitiated'"));
  EXPECT_TRUE(logs_.contains("INFO NYXRegistrar: Successfully unregistered app '" +
                             std::string(kAppText) + "'. Old RegistrationId was 'reg-1'"));
}

}  // namespace
