#include <cstdlib>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/DeviceModel.h>
#include <Kelvara/user/PrivacyManager.h>
#include <Kelvara/user/User.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using enum Telephony::RadioAccessTechnology;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

TEST(DeviceModel, NamesTheHardwareAndWhatASimulatorSimulates) {
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
  EXPECT_EQ(mapToDevice("i386"), "Simulator iOS");
  setenv("SIMULATOR_MODEL_IDENTIFIER", "iPhone12,1", 1);
  EXPECT_EQ(mapToDevice("x86_64"), "Simulator iPhone 11");
  setenv("SIMULATOR_MODEL_IDENTIFIER", "x86_64", 1);
  EXPECT_EQ(mapToDevice("x86_64"), "Simulator x86_64");
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
  EXPECT_EQ(mapToDevice("iPad8,8"), "iPad Pro (12.9-inch) (3rd generation)");
  for (const char* unknown : {"iPhone13,22", "iphone13,2", "aarch64", ""})
    EXPECT_EQ(mapToDevice(unknown), unknown);
}

class UserRecord : public testing::Test {
 protected:
  UserRecord() {
    h.device.setMachine("iPhone13,2");
    h.device.setSystemVersion("14.4");
    h.telephony.set(lte, "Carrier");
    h.locale.set({{"tr-TR"}, "TR", "tr", "GMT+3"});
    h.identifiers.authorize(kIdentifier);
    PrivacyManager::shared().setUserConsent(true);
    PrivacyManager::shared().setSubjectToCCPA(true);
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
};

TEST_F(UserRecord, GoesToTheServerUnderShortKeysWithTheIdentifierThatPrivacyAllowsNow) {
  const User user;
  Json expected = parseJson(R"({"aid":"", "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios", "osv":"14.4",
      "pkg":"org.example.host", "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "dbra":"apple",
      "dmob":"iPhone 12", "conn":"4g", "gsm":"Carrier", "cnst":1, "gdpr":2, "ccpa":2, "lcl":"TR",
      "lng":"tr", "tzn":"GMT+3"})")
                      .value();
  EXPECT_EQ(user.dictionaryValue(), expected);
  PrivacyManager::shared().setUserConsent(false);
  EXPECT_EQ(user.idfa, kIdentifier);
  expected["idfa"] = "";
  EXPECT_EQ(user.dictionaryValue(), expected);
}

TEST_F(UserRecord, IsKeptUnderItsFieldNames) {
  EXPECT_EQ(User::lastUploaded(), std::nullopt);
  const User user;
  user.save();
  EXPECT_EQ(User::lastUploaded(), user);
  const Json kept =
      parseJson(asText(h.defaults.get<Bytes>("kKVAUserDefaultKeyUser").value())).value();
  EXPECT_EQ(kept, parseJson(R"({"applicationId":"", "sdkVersion":"1.2.0", "appVersion":"3.2.1",
                "platform":"ios", "osVersion":"14.4", "bundleId":"org.example.host",
                "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "deviceBrand":"apple",
                "deviceModel":"iPhone 12", "connectionType":"4g", "gsm":"Carrier", "consent":1,
                "subjectToGDPR":2, "subjectToCCPA":2, "country":"TR", "language":"tr",
                "timeZone":"GMT+3"})")
                      .value());
  h.mainBundle.setInfoString("CFBundleShortVersionString", "\xff\xfe");
  User().save();
  EXPECT_EQ(User::lastUploaded(), user) << "what cannot be encoded replaces nothing";
}

TEST_F(UserRecord, HasTheEmptyTextForWhatIsNotKnownAndAGenerationForEveryNetwork) {
  h.locale.set({{}, std::nullopt, std::nullopt, std::nullopt});
  h.telephony.set(std::nullopt, std::nullopt);
  h.mainBundle.setBundleIdentifier(std::nullopt);
  h.mainBundle.setInfoString("CFBundleShortVersionString", std::nullopt);
  const User user;
  EXPECT_EQ(
      user.country + user.language + user.timeZone + user.gsm + user.bundleId + user.appVersion,
      "");
  EXPECT_EQ(user.connectionType, "3g");
  const std::pair<const char*, std::vector<Telephony::RadioAccessTechnology>> generations[] = {
      {"2g", {gprs, edge, cdma1x}},
      {"3g", {wcdma, hsdpa, hsupa, cdmaEVDORev0, cdmaEVDORevA, cdmaEVDORevB, eHRPD, other}},
  };
  for (const auto& [generation, technologies] : generations) {
    for (const auto technology : technologies) {
      h.telephony.set(technology, std::nullopt);
      EXPECT_EQ(SDKHelper::Device::connectionType(), generation) << static_cast<int>(technology);
    }
  }
}

}  // namespace
}  // namespace kva
