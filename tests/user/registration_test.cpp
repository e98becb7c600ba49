#include <cstdlib>
#include <limits>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/CurrentUser.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/DeviceModel.h>
#include <Kelvara/user/PrivacyManager.h>
#include <Kelvara/user/ReferralTracking.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using headless::envelope;
using headless::errorEnvelope;
using Keys = SDKHelper::UserDefaultKeys;
using enum Telephony::RadioAccessTechnology;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
constexpr const char* kOtherIdentifier = "11111111-C36C-495A-93FC-0C247A3E6E5F";

Json parsed(std::string_view text) { return parseJson(text).value(); }

/// Launches of an application on one device, and what they tell the server of it.
class Registration : public testing::Test {
 protected:
  Registration() {
    h.device.setMachine("iPhone13,2");
    h.telephony.set(lte, "Carrier");
    h.locale.set({{"tr-TR"}, "TR", "tr", "GMT+3"});
    h.identifiers.authorize(kIdentifier);
    launch();
  }

  /// Ends the process, if one runs, and begins the next.
  void launch(bool hasConsent = true) {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
    Log::shared().setLogLevel(LogLevel::d);
    PrivacyManager::shared().setUserConsent(hasConsent);
    PrivacyManager::shared().setSubjectToCCPA(true);
    h.server.clearRequests();
  }

  AnalyticsManager& analytics() { return AnalyticsManager::shared(); }

  /// Registers, and answers the error's code, or 0.
  std::int64_t registration() {
    std::optional<std::int64_t> heard;
    analytics().register_([&](auto error) { heard = error ? error->code() : 0; });
    EXPECT_TRUE(h.time.runUntil([&] { return heard.has_value(); }));
    return *heard;
  }
  /// How many updates this launch has sent.
  int updates() {
    analytics().updateIfNeeded();
    h.time.advance(1);
    return h.server.count("/update");
  }
  /// How many campaign reports another launch sends.
  int reports(bool hasConsent, const std::string& reply) {
    launch(hasConsent);
    h.server.reply("/track", reply);
    ReferralTracking::shared().trackCampaign();
    h.time.advance(1);
    return h.server.count("/track");
  }

  headless::Headless h;
  std::unique_ptr<Runtime> runtime;
  const std::string noPlan = envelope("{}");
  const std::string plan = envelope(R"({"plan":"p1"})");
  const std::string badRequest = errorEnvelope(400, "Bad.");
};

TEST_F(Registration, IsSentOnceAndAnUpdateWhenTheDeviceChanged) {
  EXPECT_EQ(updates(), 0) << "an unregistered user is not updated";
  h.server.reply("/register", errorEnvelope(42, "Refused."));
  EXPECT_EQ(registration(), 42);
  EXPECT_EQ(h.output.count("<KVA> [E]: Register error: Refused."), 1);
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), std::nullopt);
  EXPECT_EQ(lastUploadedUser(), std::nullopt);

  h.server.reply("/register", envelope(R"({"uid":"u1"})"));
  EXPECT_EQ(registration(), 0);
  EXPECT_EQ(registration(), 0);
  EXPECT_EQ(h.server.count("/register"), 2);
  EXPECT_EQ(h.output.count("<KVA> [D]: Register success: u1"), 1);
  h.device.setSystemVersion("7.0");
  EXPECT_EQ(updates(), 0) << "a change in the run waits for the next launch";
  EXPECT_EQ(h.output.count("<KVA> [D]: No need to user update."), 1);

  launch();
  h.server.reply("/update", errorEnvelope(500, "Down."));
  EXPECT_EQ(updates(), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: User update error: Down."), 1);
  h.server.reply("/update", envelope(R"({"uid":"u2"})"));
  EXPECT_EQ(updates(), 2);
  EXPECT_EQ(h.server.lastRequest("/update").json()["uid"], "u1");
  EXPECT_EQ(h.server.lastRequest("/update").json()["osv"], "7.0");
  EXPECT_EQ(h.output.count("<KVA> [D]: User update success: u2"), 1);

  launch();
  EXPECT_EQ(analytics().userId(), "u2");
  EXPECT_EQ(updates(), 0);
}

TEST_F(Registration, IsOneAtATimeWhoeverAsksAndWhateverTheAnswer) {
  std::vector<std::int64_t> heard;
  const auto askTwiceAndLogOut = [&] {
    const auto note = [&](auto error) { heard.push_back(error ? error->code() : 0); };
    analytics().register_(note);
    analytics().logout();
    analytics().register_(note);
    EXPECT_THAT(heard, testing::IsEmpty());
    h.time.advance(60);
    return std::exchange(heard, {});
  };
  h.server.reply("/register", errorEnvelope(404, "Who?"), 0.5);
  EXPECT_THAT(askTwiceAndLogOut(), testing::ElementsAre(404, 404));
  EXPECT_EQ(h.server.count("/register"), 1);
  h.server.reply("/register", envelope(R"({"uid":"u1"})"), 0.5);
  EXPECT_THAT(askTwiceAndLogOut(), testing::ElementsAre(0, 0));
  EXPECT_EQ(h.server.count("/register"), 2);
  EXPECT_EQ(analytics().userId(), "u1");
}

TEST_F(Registration, IsDoneByOneOfSeveralProcesses) {
  h.server.reply("/register", envelope(R"({"uid":"mine"})"));
  headless::MemoryUserDefaults elsewhere = h.defaults;
  auto claim = elsewhere.claim(UserDefaults::Task::registration);
  std::vector<std::int64_t> answers;
  const auto begin = [&] {
    analytics().register_([&](auto error) { answers.push_back(error ? error->code() : 0); });
  };
  begin();
  begin();
  h.time.advance(30);
  EXPECT_TRUE(answers.empty());
  elsewhere.set(Keys::userId, std::string("theirs"));
  claim.reset();
  h.time.advance(0.1);
  EXPECT_EQ(answers, std::vector<std::int64_t>(2, 0));
  EXPECT_EQ(analytics().userId(), "theirs");

  // The server does not know the user any more: the other process replaces it.
  elsewhere.set(Keys::userId, std::string("theirs anew"));
  analytics().logout();
  EXPECT_EQ(analytics().userId(), "theirs anew");
  EXPECT_EQ(elsewhere.get<std::string>(Keys::userId), "theirs anew");
  EXPECT_EQ(h.server.count("/register"), 0);

  for (const char* end : {"dies", "takes too long"}) {
    SCOPED_TRACE(end);
    h.defaults.remove(Keys::userId);
    launch();
    claim = elsewhere.claim(UserDefaults::Task::registration);
    begin();
    h.time.advance(60);
    EXPECT_EQ(h.server.count("/register"), 0);
    if (end == std::string_view("dies")) claim.reset();
    h.time.advance(20);
    EXPECT_EQ(analytics().userId(), "mine");
  }

  h.defaults.remove(Keys::userId);
  launch();
  answers.clear();
  begin();
  runtime.reset();
  EXPECT_EQ(answers, std::vector{static_cast<std::int64_t>(URLError::cancelled)});
}

TEST_F(Registration, SendsShortKeysWithTheIdentifierOfTheMomentAndKeepsFieldNames) {
  const User user = currentUser();
  save(user);
  auto& manager = analytics();
  PrivacyManager::shared().setUserConsent(false);
  manager.register_([](auto) {});
  h.time.advance(1);
  EXPECT_EQ(h.server.lastRequest("/register").json(),
            parsed(R"({"aid":"", "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios",
      "osv":"6.1.0", "pkg":"org.example.host", "idfa":"", "dbra":"apple", "dmob":"iPhone 12",
      "conn":"4g", "gsm":"Carrier", "cnst":1, "gdpr":2, "ccpa":2, "lcl":"TR", "lng":"tr",
      "tzn":"GMT+3"})"));
  EXPECT_EQ(parsed(asText(h.defaults.get<Bytes>("kKVAUserDefaultKeyUser").value())),
            parsed(R"({"applicationId":"", "sdkVersion":"1.2.0", "appVersion":"3.2.1",
      "platform":"ios", "osVersion":"6.1.0", "bundleId":"org.example.host",
      "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "deviceBrand":"apple",
      "deviceModel":"iPhone 12", "connectionType":"4g", "gsm":"Carrier", "consent":1,
      "subjectToGDPR":2, "subjectToCCPA":2, "country":"TR", "language":"tr", "timeZone":"GMT+3"})"));
  EXPECT_EQ(lastUploadedUser(), user);
  h.mainBundle.setInfoString("CFBundleShortVersionString", "\xff\xfe");
  save(currentUser());
  EXPECT_EQ(lastUploadedUser(), user) << "what cannot be encoded replaces nothing";
}

TEST_F(Registration, HasAGenerationForEveryNetworkAndTheEmptyTextForWhatIsNotKnown) {
  const auto generation = [&](Telephony::RadioAccessTechnology technology) {
    h.telephony.set(technology, std::nullopt);
    return SDKHelper::Device::connectionType();
  };
  for (const auto technology : {gprs, edge, cdma1x})
    EXPECT_EQ(generation(technology), "2g") << static_cast<int>(technology);
  for (const auto technology :
       {wcdma, hsdpa, hsupa, cdmaEVDORev0, cdmaEVDORevA, cdmaEVDORevB, eHRPD, other})
    EXPECT_EQ(generation(technology), "3g") << static_cast<int>(technology);
  h.locale.set({{}, std::nullopt, std::nullopt, std::nullopt});
  h.telephony.set(std::nullopt, std::nullopt);
  const User user = currentUser();
  EXPECT_EQ(user.country + user.language + user.timeZone + user.gsm + user.connectionType, "3g");
}

TEST(DeviceModel, NamesTheHardwareAndWhatASimulatorSimulates) {
  EXPECT_EQ(mapToDevice("i386"), "Simulator iOS");
  setenv("SIMULATOR_MODEL_IDENTIFIER", "x86_64", 1);
  EXPECT_EQ(mapToDevice("x86_64"), "Simulator x86_64");
  setenv("SIMULATOR_MODEL_IDENTIFIER", "iPhone12,1", 1);
  EXPECT_EQ(mapToDevice("x86_64"), "Simulator iPhone 11");
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
  for (const char* unknown : {"iPhone13,22", "iphone13,2", "aarch64", ""})
    EXPECT_EQ(mapToDevice(unknown), unknown);
}

TEST_F(Registration, KeepsTheServersClockAcrossLaunches) {
  h.time.setNow(1'700'000'000);
  analytics().setDeltaTime(1'700'000'000'500);
  launch();
  h.time.setNow(1'700'000'060.25);
  EXPECT_EQ(analytics().serverTime(), 1'700'000'060'750);

  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_DEATH(analytics().setDeltaTime(Limits::min()), "Kelvara: fatal: the difference");
  analytics().setDeltaTime(Limits::max());
  h.time.advance(1);
  EXPECT_DEATH(analytics().serverTime(), "Kelvara: fatal: the server's time");
}

TEST_F(Registration, OfACampaignIsReportedAgainOnceThereIsANewIdentifier) {
  EXPECT_EQ(reports(false, noPlan), 1) << "the first report goes without an identifier";
  EXPECT_EQ(h.server.lastRequest("/track").json(), parsed(R"({"aid":null, "eid":null,
      "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios", "osv":"6.1.0", "dbra":"apple",
      "dmod":"iPhone 12", "conn":"4g", "gsm":"Carrier", "lcl":"TR", "lng":"tr", "tzn":"GMT+3",
      "idfa":""})"));
  EXPECT_EQ(reports(false, noPlan), 0);
  EXPECT_EQ(reports(true, noPlan), 1);
  EXPECT_EQ(h.server.lastRequest("/track").json()["idfa"], kIdentifier);
  EXPECT_EQ(reports(true, noPlan), 0) << "the server has this one";
  EXPECT_EQ(reports(false, noPlan), 0);
  h.identifiers.authorize(kOtherIdentifier);
  EXPECT_EQ(reports(true, errorEnvelope(500, "Down.")), 1);
  EXPECT_EQ(reports(true, envelope(R"({"plan":""})")), 1);
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(reports(true, plan), 1) << "a plan now takes nothing back";
  h.identifiers.authorize(kOtherIdentifier);
  EXPECT_EQ(reports(true, badRequest), 1);
  EXPECT_EQ(reports(true, noPlan), 0) << "and after a bad request there are no more";
}

TEST_F(Registration, OfACampaignEndsWhenTheFirstReportAttributesItOrIsBad) {
  EXPECT_EQ(reports(true, envelope("null")), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Track campaign error: -1"), 1);
  for (const auto& last : {badRequest, plan}) {
    h.defaults.remove(Keys::isFirstCampaignTracked);
    EXPECT_EQ(reports(true, last), 1);
    h.identifiers.authorize(kOtherIdentifier);
    EXPECT_EQ(reports(true, noPlan), 0) << last;
  }
}

}  // namespace
}  // namespace kva
