#include <cstdlib>

#include <gtest/gtest.h>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/DeviceModel.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using Device = SDKHelper::Device;
using Technology = Telephony::RadioAccessTechnology;

TEST(DeviceModel, NamesTheHardware) {
  const struct {
    const char* identifier;
    const char* name;
  } cases[] = {
      {"iPhone13,2", "iPhone 12"},
      {"iPhone3,3", "iPhone 4"},
      {"iPad2,4", "iPad 2"},
      {"iPad2,7", "iPad mini"},
      {"iPad8,8", "iPad Pro (12.9-inch) (3rd generation)"},
      {"AppleTV6,2", "Apple TV 4K"},
      {"AudioAccessory5,1", "HomePod mini"},
      {"iPhone99,9", "iPhone99,9"},
      {"iPhone13,22", "iPhone13,22"},
      {"iphone13,2", "iphone13,2"},
      {"aarch64", "aarch64"},
      {"", ""},
  };
  for (const auto& [identifier, name] : cases) EXPECT_EQ(mapToDevice(identifier), name);
}

TEST(DeviceModel, NamesASimulatorAfterTheSimulatedDevice) {
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
  EXPECT_EQ(mapToDevice("i386"), "Simulator iOS");
  headless::Headless h;
  {
    Runtime runtime(h.platform());
    EXPECT_EQ(Device::deviceModel(), "Simulator iOS");
    setenv("SIMULATOR_MODEL_IDENTIFIER", "iPhone12,1", 1);
    EXPECT_EQ(mapToDevice("x86_64"), "Simulator iPhone 11");
    EXPECT_EQ(Device::deviceModel(), "Simulator iOS") << "the name is found once per process";
  }
  Runtime runtime(h.platform());
  EXPECT_EQ(Device::deviceModel(), "Simulator iPhone 11");
  setenv("SIMULATOR_MODEL_IDENTIFIER", "x86_64", 1);
  EXPECT_EQ(mapToDevice("x86_64"), "Simulator x86_64");
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
}

TEST(Device, TellsTheGenerationOfTheNetwork) {
  headless::Headless h;
  Runtime runtime(h.platform());
  EXPECT_EQ(Device::connectionType(), "3g") << "no cellular service";
  const std::pair<Technology, const char*> cases[] = {
      {Technology::gprs, "2g"},         {Technology::edge, "2g"},
      {Technology::cdma1x, "2g"},       {Technology::wcdma, "3g"},
      {Technology::hsdpa, "3g"},        {Technology::hsupa, "3g"},
      {Technology::cdmaEVDORev0, "3g"}, {Technology::cdmaEVDORevA, "3g"},
      {Technology::cdmaEVDORevB, "3g"}, {Technology::eHRPD, "3g"},
      {Technology::lte, "4g"},          {Technology::other, "3g"}};
  for (const auto& [technology, expected] : cases) {
    h.telephony.set(technology, std::nullopt);
    EXPECT_EQ(Device::connectionType(), expected) << static_cast<int>(technology);
  }
}

TEST(Device, AnswersNothingKnownWithTheEmptyText) {
  headless::Headless h;
  Runtime runtime(h.platform());
  h.locale.set({.countryCode = "TR", .languageCode = "tr", .timeZoneAbbreviation = "GMT+3"});
  h.telephony.set(std::nullopt, "Carrier");
  EXPECT_EQ(Device::country() + Device::language() + Device::timezone(), "TRtrGMT+3");
  EXPECT_EQ(Device::carrierName(), "Carrier");
  h.locale.set({{}, std::nullopt, std::nullopt, std::nullopt});
  h.telephony.set(std::nullopt, std::nullopt);
  EXPECT_EQ(Device::country() + Device::language() + Device::timezone() + Device::carrierName(),
            "");
}

}  // namespace
}  // namespace kva
