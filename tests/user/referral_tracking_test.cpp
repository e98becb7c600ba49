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
    SDKManager::shared().setUserId("host user");
    PrivacyManager::shared().setUserConsent(consent == withConsent);
    ReferralTracking::shared().trackCampaign();
    h.time.advance(1);
    return h.server.count("/track");
  }

  headless::Headless h;
  const std::string noPlan = envelope("{}");
  const std::string plan = envelope(R"({"plan":"p1"})");
  const std::string badRequest = errorEnvelope(400, "Bad.");
};

TEST_F(Referral, ReportsAgainOnceThereIsANewIdentifier) {
  h.device.setMachine("iPhone13,2");
  h.telephony.set(Telephony::RadioAccessTechnology::edge, "Carrier");
  EXPECT_EQ(launch(withoutConsent, noPlan), 1) << "the first report goes without an identifier";
  EXPECT_EQ(h.server.lastRequest("/track").json(),
            parseJson(R"({"aid":null, "eid":"host user", "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios",
      "osv":"6.1.0", "dbra":"apple", "dmod":"iPhone 12", "conn":"2g", "gsm":"Carrier", "lcl":"US",
      "lng":"en", "tzn":"UTC", "idfa":""})")
                .value());
  EXPECT_EQ(launch(withoutConsent, noPlan), 0);
  EXPECT_EQ(launch(withConsent, noPlan), 1);
  EXPECT_EQ(h.server.lastRequest("/track").json()["idfa"], kIdentifier);
  EXPECT_EQ(launch(withConsent, noPlan), 0) << "the server has this one";
  h.identifiers.authorize(kOther);
  EXPECT_EQ(launch(withConsent, errorEnvelope(500, "Down.")), 1);
  EXPECT_EQ(launch(withConsent, envelope(R"({"plan":""})")), 1);
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(launch(withConsent, plan), 1) << "a plan now takes nothing back";
  h.identifiers.authorize(kOther);
  EXPECT_EQ(launch(withConsent, badRequest), 1);
  EXPECT_EQ(launch(withConsent, noPlan), 0) << "and after a bad request there are no more";
}

TEST_F(Referral, EndsWhenTheFirstReportAttributesTheInstallationOrIsBad) {
  for (const auto& failing : {errorEnvelope(500, "Down."), envelope("null")})
    EXPECT_EQ(launch(withConsent, failing), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Track campaign error: 500"), 1);
  for (const auto& last : {badRequest, plan}) {
    h.defaults.remove(SDKHelper::UserDefaultKeys::isFirstCampaignTracked);
    EXPECT_EQ(launch(withConsent, last), 1);
    h.identifiers.authorize(kOther);
    EXPECT_EQ(launch(withConsent, noPlan), 0) << last;
  }
}

}  // namespace
}  // namespace kva
