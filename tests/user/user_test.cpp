#include <limits>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/Application.h>
#include <Kelvara/user/CurrentUser.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/DeviceModel.h>
#include <Kelvara/user/Plan.h>
#include <Kelvara/user/PrivacyManager.h>
#include <Kelvara/user/ReferralTracking.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using headless::envelope;
using headless::errorEnvelope;
using testing::ElementsAre;
using Lines = std::vector<std::string>;
using Keys = SDKHelper::UserDefaultKeys;
using enum Telephony::RadioAccessTechnology;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
constexpr const char* kDigest = "c199e4f4eed5309b824eca68fd918c78";
constexpr const char* kOtherIdentifier = "11111111-C36C-495A-93FC-0C247A3E6E5F";

Json parsed(std::string_view text) { return parseJson(text).value(); }

const Json kMinimal = {{"aid", "A"}, {"pp", "https://example.org/privacy"}};

Json with(Json json, const char* changes) {
  json.update(parsed(changes));
  return json;
}

TEST(Application, RequiresOnlyItsIdAndItsPrivacyPolicy) {
  const Json whole = with(kMinimal, R"({
      "tids": [{"idfa":"d1","test":true,"suite":false,"log":true,"sandbox":true}],
      "btyp": ["banner","rewarded"], "bads": ["x"], "tmpv": {"t":3}, "hasc": true,
      "sett": {"dip":0,"nfsp":0,"sndm":false}})");
  Json received = whole;
  received["tids"][0]["suite"] = true;
  EXPECT_EQ(Application::decode(received).value().toJson(), whole)
      << "the server sets no test suite";
  EXPECT_EQ(Application::decode(kMinimal).value().toJson(),
            with(kMinimal, R"({"tids":[], "btyp":[], "bads":[], "tmpv":{}, "hasc":false,
                "sett":{"dip":4,"nfsp":60,"sndm":true}})"));
  for (const char* broken : {R"({"aid":7})", R"({"aid":null})", R"({"pp":null})", R"({"pp":""})",
                             R"({"pp":"http://["})", R"({"pp":true})"})
    EXPECT_FALSE(Application::decode(with(kMinimal, broken))) << broken;
  for (const char* unreadable :
       {R"({"tids":[{"idfa":"a"},{"test":true}]})", R"({"btyp":["banner","video"]})",
        R"({"bads":["x",1]})", R"({"tmpv":{"a":1,"b":1.5}})", R"({"hasc":1})", R"({"sett":[1]})"})
    EXPECT_EQ(Application::decode(with(kMinimal, unreadable)), Application::decode(kMinimal))
        << unreadable;
}

TEST(ApplicationSetting, CountsPeriodsInHundredthsMemberByMember) {
  const std::pair<const char*, ApplicationSetting> cases[] = {
      {R"({"dip":199,"nfsp":-150})", {1, -1, true}},
      {R"({"dip":"x","sndm":false})", {4, 60, false}},
      {R"({"dip":500.0,"nfsp":12.5,"sndm":0})", {5, 60, true}},
      {R"({"dip":9223372036854775807,"nfsp":9.3e18})", {92233720368547758, 60, true}},
      {R"({"dip":9223372036854775808,"nfsp":true})", {4, 60, true}},
  };
  for (const auto& [json, expected] : cases)
    EXPECT_EQ(ApplicationSetting::decode(parsed(json)), expected) << json;
}

TEST(Plan, RequiresAllFourMembers) {
  const Json json = {{"plan", "p"}, {"capd", 10}, {"caph", 2}, {"ecpm", 2500}};
  EXPECT_EQ(Plan::decode(json), (Plan{"p", 10, 2, 2500}));
  for (const char* key : {"plan", "capd", "caph", "ecpm"}) {
    Json missing = json;
    missing.erase(key);
    EXPECT_FALSE(Plan::decode(missing)) << key;
  }
}

TEST(PrivacyState, HasOneStatusForBothRegulations) {
  // Each letter is a step: GDPR or CCPA, set to true in upper case and to false in lower case.
  const std::pair<const char*, int> cases[] = {{"", -1},  {"g", 0},  {"Gg", 0}, {"Gc", 1},
                                               {"GC", 2}, {"Cg", 2}, {"CcG", 1}};
  for (const auto& [steps, expected] : cases) {
    PrivacyManager fresh;
    for (const char step : std::string_view(steps)) {
      if (step == 'G' || step == 'g')
        fresh.setSubjectToGDPR(step == 'G');
      else
        fresh.setSubjectToCCPA(step == 'C');
    }
    EXPECT_EQ(fresh.subjectToGDPR(), expected) << steps;
    EXPECT_EQ(fresh.subjectToCCPA(), expected) << steps;
  }
}

TEST(PrivacyState, IdentifiesATestDeviceByTheDigestOfAnIdentifierThatMayLeave) {
  headless::Headless h;
  Runtime runtime{h.platform()};
  auto& privacy = PrivacyManager::shared();
  auto& admin = AdminManager::shared();
  const auto linesOf = [&](const std::vector<Tester>& testers) {
    h.output.clear();
    admin.setTesters(testers);
    return h.output.lines();
  };
  const std::string hint = "<KVA> [I]: Send your IDFA to your account manager to become tester: ";
  const std::string match = "<KVA> [I]: This is a test device.";
  const Tester other{.testerId = "other", .isLogsEnabled = true};
  const Tester quiet{.testerId = kDigest, .isSandBoxEnabled = true};
  const Tester loud{.testerId = kDigest, .isLogsEnabled = true};

  h.identifiers.set({kIdentifier, IdentifierManager::AuthorizationStatus::denied, false});
  EXPECT_EQ(linesOf({quiet}),
            Lines{"<KVA> [I]: Advertising tracking disabled, turn on advertising tracking and get "
                  "your IDFA to become tester."});
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(linesOf({quiet}), Lines{hint + "-"});
  privacy.setUserConsent(false);
  EXPECT_EQ(linesOf({quiet}), Lines{hint + "-"});
  EXPECT_EQ(privacy.consent(), 0);
  privacy.setUserConsent(true);
  EXPECT_EQ(linesOf({other}), Lines{hint + kIdentifier});
  h.identifiers.authorize("00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(linesOf({quiet}), Lines{hint + "-"});
  h.identifiers.authorize(kIdentifier);
  EXPECT_FALSE(admin.isTester());
  EXPECT_EQ(linesOf({other, quiet, loud}), Lines{match});
  EXPECT_TRUE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::i);
  EXPECT_EQ(linesOf({loud}), Lines{match});
  EXPECT_FALSE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::d);
  EXPECT_EQ(linesOf({}), Lines{}) << "a match remains if a later list has none";
  EXPECT_EQ(admin.tester(), loud);
}

/// Launches of an application on one device, and the requests that they send.
class Registration : public testing::Test {
 protected:
  Registration() {
    h.device.setMachine("iPhone13,2");
    h.telephony.set(lte, "Carrier");
    h.locale.set({{"tr-TR"}, "TR", "tr", "GMT+3"});
    h.identifiers.authorize(kIdentifier);
    launch();
  }

  /// Ends the running process and begins the next one.
  void launch(bool hasConsent = true) {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
    Log::shared().setLogLevel(LogLevel::d);
    PrivacyManager::shared().setUserConsent(hasConsent);
    PrivacyManager::shared().setSubjectToCCPA(true);
    h.server.clearRequests();
    codes.clear();
  }

  AnalyticsManager& analytics() { return AnalyticsManager::shared(); }

  /// Registers and records the code of the completion's error, or 0.
  void beginRegistration() {
    analytics().register_([this](auto error) { codes.push_back(error ? error->code() : 0); });
  }
  /// Registers twice, logs out in between, and returns the codes of both completions.
  std::vector<std::int64_t> registerTwice() {
    codes.clear();
    beginRegistration();
    analytics().logout();
    beginRegistration();
    EXPECT_THAT(codes, testing::IsEmpty());
    h.time.advance(60);
    return codes;
  }
  /// Updates the user and returns the number of updates that this launch has sent.
  int updates() {
    analytics().updateIfNeeded();
    h.time.advance(1);
    return h.server.count("/update");
  }
  /// Launches again and returns the number of campaign reports that the launch sends.
  int reports(bool hasConsent, const char* identifier, const std::string& reply) {
    h.identifiers.authorize(identifier);
    launch(hasConsent);
    h.server.reply("/track", reply);
    ReferralTracking::shared().trackCampaign();
    h.time.advance(1);
    return h.server.count("/track");
  }

  headless::Headless h;
  std::unique_ptr<Runtime> runtime;
  std::vector<std::int64_t> codes;
};

TEST_F(Registration, IsSentOnceAndUpdatedWhenTheDeviceHasChanged) {
  EXPECT_EQ(updates(), 0) << "an unregistered user is not updated";
  h.server.reply("/register", errorEnvelope(404, "Refused."), 0.5);
  EXPECT_THAT(registerTwice(), ElementsAre(404, 404));
  EXPECT_EQ(h.server.count("/register"), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Register error: Refused."), 1);
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), std::nullopt);
  EXPECT_EQ(lastUploadedUser(), std::nullopt);

  h.server.reply("/register", envelope(R"({"uid":"u1"})"), 0.5);
  EXPECT_THAT(registerTwice(), ElementsAre(0, 0));
  beginRegistration();
  EXPECT_THAT(codes, ElementsAre(0, 0, 0));
  EXPECT_EQ(h.server.count("/register"), 2);
  EXPECT_EQ(h.output.count("<KVA> [D]: Register success: u1"), 1);
  h.device.setSystemVersion("7.0");
  EXPECT_EQ(updates(), 0) << "the record does not change until the next launch";
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

TEST_F(Registration, IsDoneByOneOfSeveralProcesses) {
  h.server.reply("/register", envelope(R"({"uid":"mine"})"));
  headless::MemoryUserDefaults elsewhere = h.defaults;
  auto claim = elsewhere.claim(UserDefaults::Task::registration);
  beginRegistration();
  beginRegistration();
  h.time.advance(30);
  EXPECT_THAT(codes, testing::IsEmpty());
  elsewhere.set(Keys::userId, std::string("theirs"));
  claim.reset();
  h.time.advance(0.1);
  EXPECT_THAT(codes, ElementsAre(0, 0));
  EXPECT_EQ(analytics().userId(), "theirs");

  // The server rejects the user, but the other process has replaced it.
  elsewhere.set(Keys::userId, std::string("their second"));
  analytics().logout();
  EXPECT_EQ(analytics().userId(), "their second");
  EXPECT_EQ(h.server.count("/register"), 0);

  for (const std::string end : {"dies", "takes too long", "outlives this process"}) {
    SCOPED_TRACE(end);
    h.defaults.remove(Keys::userId);
    launch();
    claim.reset();
    claim = elsewhere.claim(UserDefaults::Task::registration);
    beginRegistration();
    h.time.advance(60);
    EXPECT_EQ(h.server.count("/register"), 0);
    if (end == "outlives this process") break;
    if (end == "dies") claim.reset();
    h.time.advance(20);
    EXPECT_EQ(analytics().userId(), "mine");
  }
  runtime.reset();
  EXPECT_THAT(codes, ElementsAre(static_cast<std::int64_t>(URLError::cancelled)));
}

TEST_F(Registration, SendsShortKeysAndStoresFieldNames) {
  const User user = currentUser();
  save(user);
  EXPECT_EQ(user.dictionaryValue(), parsed(R"({"aid":"", "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios",
      "osv":"6.1.0", "pkg":"org.example.host", "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
      "dbra":"apple", "dmob":"iPhone 12", "conn":"4g", "gsm":"Carrier", "cnst":1, "gdpr":2,
      "ccpa":2, "lcl":"TR", "lng":"tr", "tzn":"GMT+3"})"));
  EXPECT_EQ(parsed(asText(h.defaults.get<Bytes>("kKVAUserDefaultKeyUser").value())),
            parsed(R"({"applicationId":"", "sdkVersion":"1.2.0", "appVersion":"3.2.1",
      "platform":"ios", "osVersion":"6.1.0", "bundleId":"org.example.host",
      "idfa":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "deviceBrand":"apple",
      "deviceModel":"iPhone 12", "connectionType":"4g", "gsm":"Carrier", "consent":1,
      "subjectToGDPR":2, "subjectToCCPA":2, "country":"TR", "language":"tr", "timeZone":"GMT+3"})"));
  h.mainBundle.setInfoString("CFBundleShortVersionString", "\xff\xfe");
  save(currentUser());
  EXPECT_EQ(lastUploadedUser(), user) << "a record that cannot be encoded replaces nothing";
}

TEST_F(Registration, HasAGenerationForEachNetworkAndAnEmptyTextForAnUnknownProperty) {
  std::string generations;
  for (const auto technology : {gprs, edge, cdma1x, wcdma, hsdpa, hsupa, cdmaEVDORev0, cdmaEVDORevA,
                                cdmaEVDORevB, eHRPD, other}) {
    h.telephony.set(technology, std::nullopt);
    generations += SDKHelper::Device::connectionType();
  }
  EXPECT_EQ(generations, "2g2g2g3g3g3g3g3g3g3g3g");
  h.locale.set({{}, std::nullopt, std::nullopt, std::nullopt});
  h.telephony.set(std::nullopt, std::nullopt);
  const User user = currentUser();
  EXPECT_EQ(user.country + user.language + user.timeZone + user.gsm + user.connectionType, "3g");
}

TEST(DeviceModel, NamesTheHardwareAndTheDeviceThatIsSimulated) {
  for (const auto& [simulated, name] :
       {std::pair("x86_64", "Simulator x86_64"), std::pair("iPhone12,1", "Simulator iPhone 11")}) {
    setenv("SIMULATOR_MODEL_IDENTIFIER", simulated, 1);
    EXPECT_EQ(mapToDevice("x86_64"), name);
  }
  unsetenv("SIMULATOR_MODEL_IDENTIFIER");
  EXPECT_EQ(mapToDevice("i386"), "Simulator iOS");
  EXPECT_EQ(mapToDevice("iPhone13,22"), "iPhone13,22");
}

TEST_F(Registration, StoresTheDifferenceToTheServersClock) {
  h.time.setNow(1'700'000'000);
  const auto stored = [&] { return h.defaults.get<std::int64_t>(Keys::deltaTime); };
  // A small change, as each answer brings one, is stored when the runtime ends.
  for (const auto& [serverTime, expected] : {std::pair(1'700'000'000'500, 500),
                                             {1'700'000'001'499, 500},
                                             {1'700'000'001'500, 1500},
                                             {1'700'000'000'501, 1500}}) {
    analytics().setDeltaTime(serverTime);
    EXPECT_EQ(stored(), expected) << serverTime;
    EXPECT_EQ(analytics().serverTime(), serverTime);
  }
  launch();
  EXPECT_EQ(stored(), 501);
  // Halves of a millisecond are rounded away from zero.
  for (const auto& [now, serverTime] :
       {std::pair(-1.0005, -500LL), {1.0005, 1502}, {1'700'000'060.25, 1'700'000'060'751}}) {
    h.time.setNow(now);
    EXPECT_EQ(analytics().serverTime(), serverTime) << now;
  }

  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_DEATH(analytics().setDeltaTime(Limits::min()), "Kelvara: fatal: the difference");
  analytics().setDeltaTime(Limits::max());
  h.time.advance(1);
  EXPECT_DEATH(analytics().serverTime(), "Kelvara: fatal: the server's time");
  h.time.setNow(1e300);
  EXPECT_DEATH(analytics().serverTime(), "Kelvara: fatal: a date beyond 64 bits");
}

TEST_F(Registration, IsReportedToACampaignUntilItIsAttributedOrTheReportIsBad) {
  const std::string noPlan = envelope("{}"), plan = envelope(R"({"plan":"p1"})");
  const std::string badRequest = errorEnvelope(400, "Bad.");
  EXPECT_EQ(reports(false, kIdentifier, envelope("null")), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Track campaign error: -1"), 1);
  EXPECT_EQ(reports(false, kIdentifier, noPlan), 1) << "the first report needs no identifier";
  EXPECT_EQ(h.server.lastRequest("/track").json(), parsed(R"({"aid":null, "eid":null,
      "sdkv":"1.2.0", "appv":"3.2.1", "pl":"ios", "osv":"6.1.0", "dbra":"apple",
      "dmod":"iPhone 12", "conn":"4g", "gsm":"Carrier", "lcl":"TR", "lng":"tr", "tzn":"GMT+3",
      "idfa":""})"));
  EXPECT_EQ(reports(false, kIdentifier, noPlan), 0);
  EXPECT_EQ(reports(true, kIdentifier, noPlan), 1);
  EXPECT_EQ(h.server.lastRequest("/track").json()["idfa"], kIdentifier);
  EXPECT_EQ(reports(true, kIdentifier, noPlan), 0) << "the server has this identifier";
  EXPECT_EQ(reports(false, kOtherIdentifier, noPlan), 0);
  EXPECT_EQ(reports(true, kOtherIdentifier, errorEnvelope(500, "Down.")), 1);
  EXPECT_EQ(reports(true, kOtherIdentifier, envelope(R"({"plan":""})")), 1);
  EXPECT_EQ(reports(true, kIdentifier, plan), 1) << "only the first report attributes";
  EXPECT_EQ(reports(true, kOtherIdentifier, badRequest), 1);
  for (const auto& firstReply : {plan, badRequest}) {
    EXPECT_EQ(reports(true, kOtherIdentifier, noPlan), 0);
    h.defaults.remove(Keys::isFirstCampaignTracked);
    EXPECT_EQ(reports(true, kIdentifier, firstReply), 1);
    EXPECT_EQ(reports(true, kOtherIdentifier, noPlan), 0) << firstReply;
  }
}

}  // namespace
}  // namespace kva
