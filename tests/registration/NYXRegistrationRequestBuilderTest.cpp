// What the request builders refuse to build, and how the registration error
// is raised again. The bodies they build are checked through the registrar.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "registration/NYXRegistrationError.h"
#include "registration/NYXRegistrationRequestBuilder.h"
#include "registration/NYXUnregistrationRequestBuilder.h"
#include "tests/registration/RegistrationFakes.h"
#include "tests/support/TestSupport.h"

namespace {

using registrationtest::FakeSigner;

TEST(NYXRegistrationRequestBuilderTest, IncompleteOrUnconfiguredRequestsAreNotBuilt) {
  nyxtest::NyxRoot root;
  FakeSigner signer("account-1");
  const auto reason = NYXRegistrationReason::AppInitiated;

  auto registration = [&](const std::string& platform, const SenderList& senders,
                          const AppInfoMap& appInfo) {
    return [&, platform, senders, appInfo] {
      NYXRegistrationRequestBuilder builder;
      builder.setPlatformName(platform);
      builder.setSenders(senders);
      builder.setAppInfo(appInfo);
      builder.build(reason, signer);
    };
  };
  auto unregistration = [&](const std::string& registrationId) {
    return [&, registrationId] {
      NYXUnregistrationRequestBuilder builder;
      builder.setRegistrationId(registrationId);
      builder.build(reason, signer);
    };
  };
  const AppInfoMap app = {{"service.name", "svc"}};
  struct Case {
    std::function<void()> build;
    std::string message;
  };
  const Case cases[] = {
      {registration("", {}, {}), "PlatformName must be provided"},
      {registration("Tessel", {}, {}), "Senders must not be empty"},
      {registration("Tessel", {"s1"}, {}), "AppInfo must not be empty"},
      {registration("Tessel", {"s1"}, app), "Failed to get device messaging URL from dynconfig."},
      {unregistration(""), "RegistrationId must be provided"},
      {unregistration("reg-1"), "Failed to get device messaging URL from dynconfig."},
  };
  // Only the other request's URL is configured.
  root.setConfig({{"url.devicemessaging.getmessages", "https://m.example.com/messages"}});
  for (const auto& c : cases) {
    try {
      c.build();
      ADD_FAILURE() << "built despite: " << c.message;
    } catch (const IOError&) {
      ADD_FAILURE() << "an IOError would become ServiceNotAvailable: " << c.message;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), c.message);
    }
  }
  EXPECT_TRUE(signer.signedBodies.empty());
}

// raise() must keep the full type when the error is held by its base.
TEST(NYXRegistrationErrorTest, RaisedThroughItsBaseKeepsCodeAndDescription) {
  const NYXRegistrationError error(NYXRegistrationErrorCode::ServiceNotAvailable, "down");
  const IOError& base = error;
  try {
    base.raise();
  } catch (const NYXRegistrationError& raised) {
    EXPECT_EQ(raised, error);
    EXPECT_STREQ(raised.what(), "ServiceNotAvailable: down");
    return;
  } catch (...) {
  }
  ADD_FAILURE() << "not raised as an NYXRegistrationError";
}

}  // namespace
