// The registration subsystem: the cache against real SQLite files read back
// with the sqlite3 shell, the registrar, the responder and the request
// handler over a scripted transport and a recording bus sender.
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "http/HttpErrors.h"
#include "registration/NYXRegistrar.h"
#include "registration/NYXRegistrationCache.h"
#include "registration/NYXRegistrationError.h"
#include "registration/NYXRegistrationRequestHandler.h"
#include "registration/NYXRegistrationResponder.h"
#include "tests/support/Fakes.h"
#include "tests/support/TestSupport.h"

namespace {

const AppInfoMap kApp = {{"service.name", "com.example.app"}};
const AppInfoMap kNoInstance;
const std::string kAppText = "app 'service.name=>com.example.app'";
const auto& kDevice = NYXRegistrationScope::Device;
const auto& kCustomer = NYXRegistrationScope::DeviceCustomer;
const auto& kAppInitiated = NYXRegistrationReason::AppInitiated;

// Runs the sqlite3 shell on file and returns what it printed.
std::string sqliteShell(const std::string& file, const std::string& command) {
  const char* argv[] = {"sqlite3", file.c_str(), command.c_str(), nullptr};
  g_autofree gchar* out = nullptr;
  g_autofree gchar* err = nullptr;
  gint status = -1;
  g_spawn_sync(nullptr, const_cast<gchar**>(argv), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr,
               &out, &err, &status, nullptr);
  const std::string output = out ? out : "";
  EXPECT_EQ(status, 0) << output << (err ? err : "");
  return output;
}

class NYXRegistrationCacheTest : public ::testing::Test {
 protected:
  std::string file() const { return dir_.path() + "/cache.db"; }
  nyxtest::TempDir dir_;
};

TEST_F(NYXRegistrationCacheTest, NewFileIsPrivateAndGetsTheTableAndSchemaVersionOne) {
  { NYXRegistrationCache cache(file()); }

  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  EXPECT_EQ(sqliteShell(file(), "PRAGMA user_version;"), "1\n");
  EXPECT_EQ(sqliteShell(file(), ".schema"),
            "CREATE TABLE registration_ids (registration_id TEXT NOT NULL, app_info TEXT NOT "
            "NULL, app_instance_info TEXT NOT NULL, senders TEXT NOT NULL, scope TEXT NOT NULL, "
            "directed_id TEXT NOT NULL,  UNIQUE (app_info, app_instance_info, scope, "
            "directed_id) ON CONFLICT REPLACE);\n");
}

// Every value reaches SQLite as a bound parameter, so no text can change a
// statement, and every byte comes back as it went in.
TEST_F(NYXRegistrationCacheTest, StoresRenderedRowsReplacesOnTheKeyAndMatchesTheScope) {
  NYXRegistrationCache cache(file());
  const std::string hostile =
      "x'); DROP TABLE registration_ids;-- \"%s %n ?\\ Grüße \xF0\x9F\x98\x80";
  const AppInfoMap app = {{"z.key", "last"}, {"a.key", hostile}};
  const AppInfoMap instance = {{"pid", "7"}, {"instance", " x\t"}};
  const std::string acc = " acc ";
  cache.store("reg-old", {"s1"}, app, instance, kCustomer, acc);
  cache.store("reg-new", {"s2", "s1"}, app, instance, kCustomer, acc);
  cache.store("reg-device", {"s1"}, app, instance, kDevice, acc);

  const std::string rendered = "|a.key=>" + hostile + ", z.key=>last|instance=> x\t, pid=>7|";
  EXPECT_EQ(sqliteShell(file(), "SELECT * FROM registration_ids ORDER BY scope;"),
            "reg-device" + rendered + "s1|Device|\nreg-new" + rendered + "s2, s1|DeviceCustomer|" +
                acc + "\n");
  // Senders, scope, account; then what registration and unregistration find.
  const std::tuple<SenderList, const NYXRegistrationScope&, std::string, std::string, std::string>
      cases[] = {
          {{"s2", "s1"}, kCustomer, acc, "reg-new", "reg-new"},
          {{"s1", "s2"}, kCustomer, acc, "", "reg-new"},
          {{"s2", "s1"}, kCustomer, "other", "", ""},
          {{"s1"}, kDevice, "other", "reg-device", "reg-device"},
      };
  for (const auto& [senders, scope, account, forRegistration, forUnregistration] : cases) {
    SCOPED_TRACE(scope.name() + " " + account);
    EXPECT_EQ(cache.findForRegistration(senders, app, instance, scope, account), forRegistration);
    EXPECT_EQ(cache.findForUnregistration(app, instance, scope, account), forUnregistration);
  }
}

// A file the cache cannot use fails with SQLite's reason and is left as it
// was: a version-one file whose table is gone, then a foreign file.
TEST_F(NYXRegistrationCacheTest, UnusableFileFailsWithSqlitesReasonAndIsLeftAlone) {
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { sqliteShell(file(), "PRAGMA user_version = 1;"); },
       "Failed to execute SQL statement: DELETE FROM registration_ids WHERE registration_id = "
       "?;\nno such table: registration_ids"},
      {[&] { nyxtest::writeFile(file(), std::string(4096, 'x')); },
       "Failed to read the schema version of " + file() + ": file is not a database"},
  };
  for (const auto& [makeFile, error] : cases) {
    makeFile();
    const std::string before = nyxtest::readFile(file());
    EXPECT_THAT([&] { NYXRegistrationCache(file()).remove("r"); },
                testing::ThrowsMessage<std::runtime_error>(error));
    EXPECT_EQ(nyxtest::readFile(file()), before);
  }
}

// A bus callback opens the cache for the next task while the running task
// writes it. The open must wait for the other connection's lock, not fail
// with "database is locked" (that ended the daemon), and the write after it
// must be kept.
TEST_F(NYXRegistrationCacheTest, WaitsForAnotherConnectionsLockInsteadOfFailing) {
  { NYXRegistrationCache create(file()); }
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> closeOther(other, sqlite3_close);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr);
  });
  EXPECT_NO_THROW(
      NYXRegistrationCache(file()).store("r-locked", {"s"}, kApp, kNoInstance, kDevice, ""));
  release.join();
  EXPECT_EQ(sqliteShell(file(), "SELECT registration_id FROM registration_ids;"), "r-locked\n");
}

// A JSON answer, as the servers send.
std::function<WebResponse(const WebRequest&)> reply(uint32_t status, const std::string& body) {
  return [=](const WebRequest&) {
    return nyxtest::response(status, body, {{"Content-Type", "application/json"}});
  };
}

class RegistrarTest : public ::testing::Test {
 protected:
  RegistrarTest() {
    root_.setConfig({{"url.devicemessaging.registration", "https://m.test/register?device=1"},
                     {"url.devicemessaging.unregistration", "https://m.test/unregister"}});
    cache_ = std::make_shared<NYXRegistrationCache>(root_.file("var/local/cache.db"));
    registrar_ = std::make_shared<NYXRegistrar>("Tessel", cache_, client_, signer_);
    handler_ = std::make_unique<NYXRegistrationRequestHandler>(
        registrar_, std::make_shared<NYXRegistrationResponder>(sender_));
  }

  std::string cached() const {
    return cache_->findForUnregistration(kApp, kNoInstance, kCustomer, signer_->directedId);
  }
  // What the handler did: the ClientError it passed on, or the one answer
  // the application got.
  std::string handle(const std::function<void()>& action) {
    sender_->sent.clear();
    try {
      action();
    } catch (const ClientError& error) {
      return "ClientError " + std::string(error.what());
    }
    EXPECT_EQ(sender_->sent.size(), 1u);
    return boost::algorithm::join(sender_->sent.at(0), " ");
  }
  // Every attempt is the one request, signed once with its final body;
  // the requests checked are then forgotten.
  void expectRequest(const std::string& url, const std::string& reason, const std::string& body) {
    ASSERT_FALSE(client_->requests.empty());
    for (const WebRequest& request : client_->requests) {
      EXPECT_EQ(request.getUrl(), url);
      EXPECT_EQ(request.getMethod(), RequestMethod::POST);
      EXPECT_EQ(request.getHeaders(), (HeaderMap{{"accept", "application/json"},
                                                 {"content-type", "application/json"},
                                                 {"x-zvo-reason", reason},
                                                 {"x-test-signed", "account-1"}}));
      EXPECT_EQ(request.getMaxRetries(), 3u);
      EXPECT_EQ(request.getBody(), body);
    }
    EXPECT_EQ(signer_->signedBodies, std::vector<std::string>{body});
    client_->requests.clear();
    signer_->signedBodies.clear();
  }

  nyxtest::NyxRoot root_;
  nyxtest::LogCapture logs_;
  std::shared_ptr<NYXRegistrationCache> cache_;
  std::shared_ptr<nyxtest::FakeHttpClient> client_ = std::make_shared<nyxtest::FakeHttpClient>();
  std::shared_ptr<nyxtest::FakeSigner> signer_ = std::make_shared<nyxtest::FakeSigner>();
  std::shared_ptr<nyxtest::RecordingSender> sender_ = std::make_shared<nyxtest::RecordingSender>();
  std::shared_ptr<NYXRegistrar> registrar_;
  std::unique_ptr<NYXRegistrationRequestHandler> handler_;
};

// Each step sends one exact signed request; a repeated registration is
// answered from the cache and a repeated unregistration is ignored.
TEST_F(RegistrarTest, RegistersAndUnregistersOnceWithTheExactSignedRequests) {
  const std::string app = R"("appInfo":{"service.name":"com.example.app"})";
  const std::tuple<SenderList, AppInfoMap, const NYXRegistrationScope&,
                   const NYXRegistrationReason&, std::string>
      cases[] = {
          {{"s1", "s2"},
           {},
           kCustomer,
           kAppInitiated,
           R"({"platform":"Tessel","allowedSenders":["s1","s2"],)" + app +
               R"(,"target":"DeviceCustomer"})"},
          // Instance info in key order; senders neither sorted nor made unique.
          {{"zz", " a ", "zz"},
           {{"pid", "42"}, {"instance", "a\"b"}},
           kDevice,
           NYXRegistrationReason::Unroutable,
           R"({"platform":"Tessel","allowedSenders":["zz"," a ","zz"],)" + app +
               R"(,"appInstanceInfo":{"instance":"a\"b","pid":"42"},"target":"Device"})"},
      };
  for (const auto& [senders, instance, scope, reason, body] : cases) {
    SCOPED_TRACE(body);
    logs_.clear();
    client_->answer = reply(200, R"({"registrationID":"reg-1","other":1})");

    EXPECT_EQ(registrar_->registerApp(senders, kApp, instance, scope, reason), "reg-1");
    EXPECT_EQ(registrar_->registerApp(senders, kApp, instance, scope, reason), "reg-1");

    expectRequest("https://m.test/register?device=1", reason.name(), body);

    client_->answer = reply(200, "not JSON");
    EXPECT_EQ(registrar_->unregisterApp(kApp, instance, scope, reason), "reg-1");
    EXPECT_EQ(registrar_->unregisterApp(kApp, instance, scope, reason), "");
    expectRequest("https://m.test/unregister", reason.name(), R"({"registrationId":"reg-1"})");

    const std::string due = " due to '" + reason.name() + "'";
    const std::string what =
        kAppText + " with senders '" + boost::algorithm::join(senders, ", ") + "'" + due;
    EXPECT_EQ(
        logs_.lines(),
        (std::vector<std::string>{
            "INFO NYXRegistrar: Request to register " + what,
            "INFO HttpClient: Making request to https://m.test/register?device=1",
            "INFO NYXRegistrar: Successfully registered " + kAppText +
                ". RegistrationId is 'reg-1'",
            "WARN NYXRegistrar: Spurious call for registration of " + what + ", has been ignored",
            "INFO NYXRegistrar: Request to unregister " + kAppText + due,
            "INFO HttpClient: Making request to https://m.test/unregister",
            "INFO NYXRegistrar: Successfully unregistered " + kAppText +
                ". Old RegistrationId was 'reg-1'",
            "WARN NYXRegistrar: Spurious call for unregistration of " + kAppText + due +
                ", has been ignored"}));
  }
}

// The account check comes after the cache, so an application registered
// while an account was present keeps its answer.
TEST_F(RegistrarTest, ChecksTheAccountOnlyWhenTheCacheHasNoAnswer) {
  signer_->directedId = "";
  EXPECT_EQ(handle([&] { handler_->handleRegister("com.example.app", "s1", kAppInitiated); }),
            "com.example.app nyx_registration "
            R"({"error":"AuthenticationFailed","error_description":"DeviceCustomer scoped NYX )"
            R"(registrations require the device to be registered."})");
  cache_->store("reg-cached", {"s1"}, kApp, kNoInstance, kCustomer, "");
  EXPECT_EQ(registrar_->registerApp({"s1"}, kApp, kNoInstance, kCustomer, kAppInitiated),
            "reg-cached");
  EXPECT_TRUE(client_->requests.empty());
}

TEST_F(RegistrarTest, FailuresAreAnsweredOrPassedOnUnchangedAndLeaveTheCacheAlone) {
  const std::string answer = "com.example.app nyx_registration ";
  const std::string rejected = R"({"reason":"InvalidSenderId","message":"Sender s1 is unknown"})";
  const std::string json = "\nContent-Type: application/json\n";
  auto ioError = [](const WebRequest&) -> WebResponse { throw IOError("Couldn't connect"); };
  auto unusable = [&](const std::string& what) {
    return answer +
           R"({"error":"ServiceNotAvailable","error_description":"Registration response )" + what +
           R"("})";
  };
  // Senders text, server, then what the handler did.
  const std::tuple<std::string, std::function<WebResponse(const WebRequest&)>, std::string>
      cases[] = {
          {"a,b,", ioError,
           answer + R"({"error":"InvalidSender","error_description":"'' is not a valid sender."})"},
          {"s1", reply(499, rejected),
           answer + R"({"error":"InvalidSender","error_description":"Sender s1 is unknown"})"},
          {"s1", reply(499, R"({"reason":"Throttled"})"),
           "ClientError Status Code: 499" + json + R"({"reason":"Throttled"})"},
          {"s1", reply(499, "InvalidSenderId"),
           "ClientError Status Code: 499" + json + "InvalidSenderId"},
          {"s1", reply(400, rejected), "ClientError Status Code: 400" + json + rejected},
          {"s1", ioError,
           answer + R"({"error":"ServiceNotAvailable","error_description":"Couldn't connect"})"},
          // A success answer without a usable identifier is the service failing.
          {"s1", reply(200, "<html>moved</html>"), unusable("is not JSON: Invalid value.")},
          {"s1", reply(200, R"(["reg-1"])"), unusable("is not a JSON object")},
          // Nested 200,000 levels deep: read without exhausting the stack.
          {"s1", reply(200, std::string(200000, '[') + std::string(200000, ']')),
           unusable("is not a JSON object")},
          {"s1", reply(200, R"({"registrationId":"reg-1"})"), unusable("has no registrationID")},
          {"s1", reply(200, R"({"registrationID":7})"),
           unusable("has a registrationID that is not a string")},
          {"s1", reply(200, R"({"registrationID":""})"), unusable("has an empty registrationID")},
      };
  // Registered before with other senders: a new registration would replace it.
  cache_->store("reg-old", {"other"}, kApp, kNoInstance, kCustomer, "account-1");
  for (const auto& [senders, server, outcome] : cases) {
    SCOPED_TRACE(outcome);
    client_->answer = server;
    EXPECT_EQ(handle([&] { handler_->handleRegister("com.example.app", senders, kAppInitiated); }),
              outcome);
    EXPECT_EQ(cached(), "reg-old");
  }
}

// The entry goes before the server is asked, so a failed revocation still
// leaves the application unregistered on the device.
TEST_F(RegistrarTest, UnregistrationRemovesTheCacheEntryBeforeTheRequest) {
  // The server's answer and what the handler did.
  const std::pair<std::function<WebResponse(const WebRequest&)>, std::string> cases[] = {
      {reply(500, "down"),
       R"(com.example.app nyx_registration {"error":"ServiceNotAvailable","error_description":)"
       R"("Status Code: 500\nContent-Type: application/json\ndown"})"},
      {reply(404, "gone"), "ClientError Status Code: 404\nContent-Type: application/json\ngone"},
  };
  for (const auto& [server, outcome] : cases) {
    SCOPED_TRACE(outcome);
    logs_.clear();
    cache_->store("reg-1", {"s1"}, kApp, kNoInstance, kCustomer, "account-1");
    std::string cachedAtRequest = "(no request)";
    client_->answer = [&](const WebRequest& request) {
      cachedAtRequest = cached();
      return server(request);
    };
    EXPECT_EQ(handle([&] { handler_->handleUnregister("com.example.app", kAppInitiated); }),
              outcome);
    EXPECT_EQ(cached(), "");
    EXPECT_EQ(cachedAtRequest, "");
    EXPECT_EQ(logs_.count(" NYXRegistrar: "), 1u);  // the request, as in the walk above
  }
}

// The outcome of writing an answer is logged by the bus status: sent,
// unroutable (no such service or property: an error) or unresponsive (a
// warning). A failed answer logs the lines of a successful one, with
// "failed" for "successful".
TEST_F(RegistrarTest, ResponderLogsEachBusStatusAtItsLevel) {
  const std::string tag = "NYXRegistrationResponder: ";
  // The bus status and the line logged once a successful answer is written.
  const std::pair<int, std::string> cases[] = {
      {0, "INFO " + tag + "Sent successful registration response to com.example.app"},
      {3, "ERROR " + tag +
              "Service unroutable or missing property. Service: com.example.app Property: "
              "nyx_registration"},
      {-5, "WARN " + tag + "Service unresponsive. Service: com.example.app Status: -5"},
  };
  NYXRegistrationResponder responder(sender_);
  for (const auto& [status, written] : cases) {
    SCOPED_TRACE(status);
    logs_.clear();
    sender_->statuses["com.example.app"] = {status, status};
    responder.respondSuccess("com.example.app", "reg-1", NYXRegistrationState::Registered);
    responder.respondFailure(
        "com.example.app",
        NYXRegistrationError(NYXRegistrationErrorCode::ServiceNotAvailable, "down"));
    const std::string success =
        "INFO " + tag + "Sending successful registration response to com.example.app\n" + written;
    EXPECT_EQ(boost::algorithm::join(logs_.lines(), "\n"),
              success + "\n" + boost::algorithm::replace_all_copy(success, "successful", "failed"));
  }
}

TEST(NYXRegistrationErrorTest, CarriesCodeAndDescriptionAndKeepsItsTypeWhenRaised) {
  const NYXRegistrationError error(NYXRegistrationErrorCode::ServiceNotAvailable, "down");
  EXPECT_STREQ(error.what(), "ServiceNotAvailable: down");
  EXPECT_EQ(error, NYXRegistrationError(NYXRegistrationErrorCode::ServiceNotAvailable, "down"));
  EXPECT_NE(error, NYXRegistrationError(NYXRegistrationErrorCode::InvalidSender, "down"));
  EXPECT_NE(error, NYXRegistrationError(NYXRegistrationErrorCode::ServiceNotAvailable, "Down"));
  const IOError& base = error;
  EXPECT_THROW(base.raise(), NYXRegistrationError);
}

}  // namespace
