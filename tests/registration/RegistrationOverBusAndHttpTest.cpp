// One application registers and unregisters through the real handler: the
// host bus on a private dbus-daemon carries the answer to the application,
// curl carries the signed request to a local HTTP server, and the cache is a
// file under a temporary device root.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "hbus.h"
#include "registration/NYXRegistrationCache.h"
#include "registration/NYXRegistrationRequestHandler.h"
#include "tests/support/LocalHttpServer.h"
#include "tests/support/TestSupport.h"

namespace {

using nyxtest::milliseconds;

const char kAppService[] = "com.example.registering.app";
const char kSecret[] = "device-secret-0123";
const char kCustomer[] = "customer-1";

// An application on the bus that publishes "nyx_registration" and keeps
// every answer written into it.
class AnsweringApp {
 public:
  AnsweringApp() {
    int status = -1;
    handle_.reset(HbusInitEx(kAppService, &status));
    if (status != 0 || handle_ == nullptr) {
      throw std::runtime_error("HbusInitEx failed: " + std::to_string(status));
    }
    if (HbusRegisterStringProperty(handle_.get(), "nyx_registration", nullptr,
                                   &AnsweringApp::onWrite, this) != 0 ||
        HbusStartListener(handle_.get()) != 0) {
      throw std::runtime_error("cannot publish nyx_registration");
    }
  }

  std::vector<std::string> answers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return answers_;
  }
  bool waitForAnswers(size_t count) const {
    return nyxtest::waitUntil([&] { return answers().size() >= count; }, milliseconds(10000));
  }

 private:
  // Runs on the bus listener thread; must not throw into the C caller.
  static int onWrite(HbusHandleStruct*, const char*, const char* value, void* userData) {
    auto* app = static_cast<AnsweringApp*>(userData);
    std::lock_guard<std::mutex> lock(app->mutex_);
    app->answers_.push_back(value != nullptr ? value : "(null)");
    return 0;
  }

  std::unique_ptr<HbusHandleStruct, decltype(&HbusClose)> handle_{nullptr, HbusClose};
  mutable std::mutex mutex_;
  std::vector<std::string> answers_;
};

std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

// Lower-case hex of a digest that openssl computes over file; with a key, an
// HMAC.
std::string opensslHex(const std::string& file, const std::string& hmacKey = "") {
  std::string command = "openssl dgst -sha256 -r ";
  if (!hmacKey.empty()) {
    command += "-hmac " + shellQuote(hmacKey) + " ";
  }
  command += shellQuote(file);
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  char line[256] = {};
  if (pipe == nullptr || fgets(line, sizeof line, pipe.get()) == nullptr) {
    throw std::runtime_error("openssl failed: " + command);
  }
  std::string text(line);
  return text.substr(0, text.find(' '));
}

// The device signature of a recorded request, computed here from the
// signing rules rather than taken from the code under test.
std::string expectedSignature(const nyxtest::RecordedRequest& request,
                              const nyxtest::TempDir& scratch) {
  const std::string bodyFile = scratch.path() + "/body";
  nyxtest::writeFile(bodyFile, request.body);
  const std::string canonical = request.method + "\n" + request.target + "\n" +
                                request.header("X-Device-Date") + "\n" +
                                request.header("X-Device-Customer") + "\n" + opensslHex(bodyFile);
  const std::string canonicalFile = scratch.path() + "/canonical";
  nyxtest::writeFile(canonicalFile, canonical);
  return opensslHex(canonicalFile, kSecret);
}

TEST(RegistrationOverBusAndHttpTest, AppIsRegisteredWithASignedRequestAndToldItsIdentifier) {
  nyxtest::PrivateBus bus;
  nyxtest::NyxRoot root;
  nyxtest::TempDir scratch;
  nyxtest::LocalHttpServer::Options options;
  options.signingSecret = kSecret;
  nyxtest::HttpAnswer registered(200, {"Content-Type: application/json"},
                                 R"({"registrationID":"reg-1"})");
  registered.path = "/v1/register";
  nyxtest::HttpAnswer unregistered(200);
  unregistered.path = "/v1/unregister";
  nyxtest::LocalHttpServer server({registered, unregistered}, options);
  root.setConfig({{"url.devicemessaging.registration", server.url("/v1/register?device=7")},
                  {"url.devicemessaging.unregistration", server.url("/v1/unregister")}});
  root.writePlatformFile("device-serial", "SERIAL-0042\n");
  root.writePlatformFile("device-secret", std::string(kSecret) + "\n");
  root.writePlatformFile("customer", std::string(kCustomer) + "\n");
  AnsweringApp app;

  NYXRegistrationRequestHandler(kCustomer).handleRegister(kAppService, "sender-1, sender-2",
                                                          NYXRegistrationReason::AppInitiated);

  ASSERT_TRUE(app.waitForAnswers(1));
  EXPECT_EQ(app.answers()[0], R"({"registration_id":"reg-1"})");
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/v1/register?device=7");
  EXPECT_EQ(request.body, std::string(R"({"platform":"Tessel","allowedSenders":["sender-1",)") +
                              R"("sender-2"],"appInfo":{"service.name":")" + kAppService +
                              R"("},"target":"DeviceCustomer"})");
  EXPECT_EQ(request.header("accept"), "application/json");
  EXPECT_EQ(request.header("content-type"), "application/json");
  EXPECT_EQ(request.header("x-zvo-reason"), "AppInitiated");
  EXPECT_EQ(request.header("X-Device-Serial"), "SERIAL-0042");
  EXPECT_EQ(request.header("X-Device-Customer"), kCustomer);
  EXPECT_EQ(request.header("X-Device-Signature"), expectedSignature(request, scratch));
  EXPECT_EQ(request.signature, "valid");

  // A second handler, as for the next task, answers from the cache file.
  NYXRegistrationRequestHandler(kCustomer).handleRegister(kAppService, "sender-1 sender-2",
                                                          NYXRegistrationReason::AppInitiated);
  ASSERT_TRUE(app.waitForAnswers(2));
  EXPECT_EQ(app.answers()[1], R"({"registration_id":"reg-1"})");
  EXPECT_EQ(server.requests().size(), 1u);

  NYXRegistrationRequestHandler(kCustomer).handleUnregister(kAppService,
                                                            NYXRegistrationReason::AppInitiated);
  ASSERT_TRUE(app.waitForAnswers(3));
  EXPECT_EQ(app.answers()[2], R"({"old_registration_id":"reg-1","unregistered":true})");
  requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].target, "/v1/unregister");
  EXPECT_EQ(requests[1].body, R"({"registrationId":"reg-1"})");
  EXPECT_EQ(requests[1].signature, "valid");
  EXPECT_EQ(NYXRegistrationCache(root.file("var/local/nyx_registration_cache.db"))
                .findForUnregistration({{"service.name", kAppService}}, {},
                                       NYXRegistrationScope::DeviceCustomer, kCustomer),
            "");
}

}  // namespace
