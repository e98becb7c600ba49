#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/PrivacyManager.h>
#include <Kelvara/user/ReferralTracking.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using headless::envelope;
using headless::errorEnvelope;
using Keys = SDKHelper::UserDefaultKeys;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
constexpr const char* kOther = "11111111-C36C-495A-93FC-0C247A3E6E5F";

enum Consent { withConsent, withoutConsent };

class Referral : public testing::Test {
 protected:
  Referral() { h.identifiers.authorize(kIdentifier); }

  /// One launch with a campaign; how many reports were sent.
  int launch(Consent consent, const std::string& reply) {
    Runtime runtime(h.platform());
    h.server.clearRequests();
    h.server.reply("/track", reply);
    PrivacyManager::shared().setUserConsent(consent == withConsent);
    ReferralTracking::shared().trackCampaign();
    h.time.advance(1);
    const ReferralTracking& tracking = ReferralTracking::shared();
    EXPECT_EQ(tracking.lastUploadedIDFA(), stored<std::string>(Keys::lastUploadedIDFA));
    EXPECT_EQ(tracking.isTrackCampaignNeeded(),
              stored<bool>(Keys::isTrackCampaignNeeded).value_or(false));
    EXPECT_EQ(tracking.isFirstCampaignTracked(),
              stored<bool>(Keys::isFirstCampaignTracked).value_or(false));
    return h.server.count("/track");
  }

  template <class T>
  std::optional<T> stored(const char* key) {
    return h.defaults.get<T>(key);
  }

  headless::Headless h;
  const std::string noPlan = envelope("{}");
  const std::string plan = envelope(R"({"plan":"p1"})");
  const std::string badRequest = errorEnvelope(400, "Bad.");
};

TEST_F(Referral, SendsTheDeviceAndTheIdentifier) {
  Runtime runtime(h.platform());
  PrivacyManager::shared().setUserConsent(true);
  h.device.setMachine("iPhone13,2");
  h.telephony.set(Telephony::RadioAccessTechnology::edge, "Carrier");
  h.server.reply("/track", plan);
  Json expected = parseJson(R"({"aid":null, "eid":null, "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios",
      "osv":"6.1.0", "dbra":"apple", "dmod":"iPhone 12", "conn":"2g", "gsm":"Carrier", "lcl":"US",
      "lng":"en", "tzn":"UTC", "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"})")
                      .value();
  ReferralTracking::shared().trackCampaign();
  EXPECT_EQ(h.server.lastRequest("/track").json(), expected);

  SDKManager::shared().setUserId("host user");
  expected["eid"] = "host user";
  ReferralTracking::shared().trackCampaign();
  EXPECT_EQ(h.server.lastRequest("/track").json(), expected);
}

TEST_F(Referral, ReportsAgainOnceThereIsANewIdentifier) {
  EXPECT_EQ(launch(withoutConsent, noPlan), 1) << "the first report goes without an identifier";
  EXPECT_EQ(h.server.lastRequest("/track").json()["idfa"], "");
  EXPECT_EQ(stored<std::string>(Keys::lastUploadedIDFA), std::nullopt);
  EXPECT_EQ(launch(withoutConsent, noPlan), 0);
  EXPECT_EQ(launch(withConsent, noPlan), 1);
  EXPECT_EQ(stored<std::string>(Keys::lastUploadedIDFA), kIdentifier);
  EXPECT_EQ(launch(withConsent, noPlan), 0) << "the server has this one";
  EXPECT_EQ(launch(withoutConsent, noPlan), 0);
  h.identifiers.authorize(kOther);
  EXPECT_EQ(launch(withConsent, errorEnvelope(500, "Down.")), 1);
  EXPECT_EQ(launch(withConsent, envelope(R"({"plan":""})")), 1);
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(launch(withConsent, plan), 1) << "a plan now takes nothing back";
  h.identifiers.authorize(kOther);
  EXPECT_EQ(launch(withConsent, badRequest), 1);
  EXPECT_EQ(launch(withConsent, noPlan), 0) << "and after a bad request there are no more";
}

TEST_F(Referral, EndsWhenTheInstallationIsAttributedOrTheReportBad) {
  for (const auto& failing :
       {errorEnvelope(500, "Down."), std::string("garbage"), envelope("null"), envelope("[]")})
    EXPECT_EQ(launch(withConsent, failing), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Track campaign error: 500"), 1);
  EXPECT_EQ(launch(withConsent, badRequest), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Track campaign error: 400"), 1);
  EXPECT_EQ(launch(withConsent, noPlan), 0);

  for (const char* key : {Keys::isFirstCampaignTracked, Keys::lastUploadedIDFA})
    h.defaults.remove(key);
  EXPECT_EQ(launch(withConsent, plan), 1);
  h.identifiers.authorize(kOther);
  EXPECT_EQ(launch(withConsent, noPlan), 0);
}

}  // namespace
}  // namespace kva
