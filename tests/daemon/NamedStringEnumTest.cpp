#include <gtest/gtest.h>

#include <memory>

#include "http/RequestMethod.h"
#include "messaging/WispPayloadType.h"
#include "messaging/WispPollReason.h"
#include "registration/NYXRegistrationValues.h"

namespace {

TEST(NamedStringEnumTest, ConstantsCarryTheirWireTexts) {
  const std::pair<std::string, std::string> cases[] = {
      {RequestMethod::GET.name(), "GET"},
      {RequestMethod::POST.name(), "POST"},
      {NYXRegistrationReason::AppInitiated.name(), "AppInitiated"},
      {NYXRegistrationReason::Unroutable.name(), "Unroutable"},
      {NYXRegistrationState::Registered.name(), "Registered"},
      {NYXRegistrationState::Unregistered.name(), "Unregistered"},
      {NYXRegistrationErrorCode::AuthenticationFailed.name(), "AuthenticationFailed"},
      {NYXRegistrationErrorCode::ServiceNotAvailable.name(), "ServiceNotAvailable"},
      {NYXRegistrationErrorCode::InvalidSender.name(), "InvalidSender"},
      {NYXRegistrationScope::Device.name(), "Device"},
      {NYXRegistrationScope::DeviceCustomer.name(), "DeviceCustomer"},
      {WispPollReason::ManualSync.name(), "ManualSync"},
      {WispPollReason::NetworkStartup.name(), "NetworkStartup"},
      {WispPollReason::AntiEntropy.name(), "AntiEntropy"},
      {WispPollReason::NUDGE.name(), "NUDGE"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.first, c.second);
  }
}

TEST(NamedStringEnumTest, ValuesCompareByTheirTextOnly) {
  NYXRegistrationScope device = NYXRegistrationScope::Device;
  NYXRegistrationScope customer = NYXRegistrationScope::DeviceCustomer;
  EXPECT_TRUE(device == NYXRegistrationScope::Device);
  EXPECT_FALSE(device != NYXRegistrationScope::Device);
  EXPECT_FALSE(device == customer);
  EXPECT_TRUE(device != customer);

  // "Raw" and "NYX": the same length, different bytes.
  EXPECT_FALSE(WispPayloadType::Raw == WispPayloadType::NYX);
  EXPECT_TRUE(WispPayloadType::Raw != WispPayloadType::NYX);
}

TEST(NamedStringEnumTest, AssignmentCopiesTheName) {
  WispPollReason reason = WispPollReason::NUDGE;
  reason = WispPollReason::NetworkStartup;
  EXPECT_TRUE(reason == WispPollReason::NetworkStartup);
  EXPECT_EQ(reason.name(), "NetworkStartup");
  reason = reason;  // self-assignment keeps the value
  EXPECT_EQ(reason.name(), "NetworkStartup");
}

// A subclass that changes equality changes inequality with it, also when both
// are called through the base.
TEST(NamedStringEnumTest, InequalityFollowsAnOverriddenEquality) {
  struct AlwaysEqual : NamedStringEnum<AlwaysEqual> {
    explicit AlwaysEqual(const std::string& name) : NamedStringEnum(name) {}
    bool operator==(const NamedStringEnum&) const override { return true; }
  };
  std::unique_ptr<NamedStringEnum<AlwaysEqual>> a = std::make_unique<AlwaysEqual>("a");
  AlwaysEqual b("b");
  EXPECT_TRUE(*a == b);
  EXPECT_FALSE(*a != b);
}

}  // namespace
