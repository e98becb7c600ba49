#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/user/PrivacyManager.h>
#include <Kelvara/user/User.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

class UserRecord : public testing::Test {
 protected:
  UserRecord() {
    h.device.setMachine("iPhone13,2");
    h.device.setSystemVersion("14.4");
    h.telephony.set(Telephony::RadioAccessTechnology::lte, "Carrier");
    h.locale.set({{"tr-TR"}, "TR", "tr", "GMT+3"});
    h.identifiers.authorize(kIdentifier);
    PrivacyManager::shared().setUserConsent(true);
    PrivacyManager::shared().setSubjectToCCPA(true);
  }

  void store(UserDefaults::Value value) {
    h.defaults.set(SDKHelper::UserDefaultKeys::user, std::move(value));
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
};

TEST_F(UserRecord, GoesToTheServerUnderShortKeys) {
  EXPECT_EQ(User().dictionaryValue(),
            parseJson(R"({"aid":"", "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios", "osv":"14.4",
                "pkg":"org.example.host", "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                "dbra":"apple", "dmob":"iPhone 12", "conn":"4g", "gsm":"Carrier", "cnst":1,
                "gdpr":2, "ccpa":2, "lcl":"TR", "lng":"tr", "tzn":"GMT+3"})")
                .value());
}

TEST_F(UserRecord, SendsTheIdentifierThatPrivacyAllowsNow) {
  const User user;
  PrivacyManager::shared().setUserConsent(false);
  EXPECT_EQ(user.idfa, kIdentifier);
  EXPECT_EQ(user.dictionaryValue()["idfa"], "");
  EXPECT_EQ(user.dictionaryValue()["cnst"], 1) << "the other entries are the record's own";
}

TEST_F(UserRecord, IsKeptUnderItsFieldNames) {
  EXPECT_EQ(User::lastUploaded(), std::nullopt);
  const User user;
  user.save();
  const auto bytes = h.defaults.get<Bytes>("kKVAUserDefaultKeyUser");
  ASSERT_TRUE(bytes);
  const Json kept = parseJson(asText(*bytes)).value();
  EXPECT_EQ(kept, parseJson(R"({"applicationId":"", "sdkVersion":"1.2.0", "appVersion":"3.2.1",
                "platform":"ios", "osVersion":"14.4", "bundleId":"org.example.host",
                "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "deviceBrand":"apple",
                "deviceModel":"iPhone 12", "connectionType":"4g", "gsm":"Carrier", "consent":1,
                "subjectToGDPR":2, "subjectToCCPA":2, "country":"TR", "language":"tr",
                "timeZone":"GMT+3"})")
                      .value());
  EXPECT_EQ(User::lastUploaded(), user);

  h.locale.set({{"tr-TR"}, "TR", "tr", "GMT+2"});
  EXPECT_NE(User::lastUploaded(), User()) << "only the time zone differs";

  for (const auto& [key, value] : kept.items()) {
    Json broken = kept;
    broken.erase(key);
    store(toBytes(broken.dump()));
    EXPECT_EQ(User::lastUploaded(), std::nullopt) << key;
    broken[key] = value.is_string() ? Json(1) : Json("1");
    store(toBytes(broken.dump()));
    EXPECT_EQ(User::lastUploaded(), std::nullopt) << key;
  }
  store(kept.dump());  // text where bytes should be
  EXPECT_EQ(User::lastUploaded(), std::nullopt);
  store(toBytes("{\"applicationId\":\"\xff"));
  EXPECT_EQ(User::lastUploaded(), std::nullopt);
}

TEST_F(UserRecord, ThatCannotBeEncodedLeavesTheOneThatIsKept) {
  const User good;
  good.save();
  h.mainBundle.setInfoString("CFBundleShortVersionString", "\xff\xfe");
  User().save();
  EXPECT_EQ(User::lastUploaded(), good);
}

}  // namespace
}  // namespace kva
