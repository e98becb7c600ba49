#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
constexpr const char* kApplication = R"({"aid":"app","pp":"https://example.org/privacy"})";

class StartTest : public testing::Test {
 protected:
  /// What each start's completion was given: the error's code, or 0.
  std::function<void(std::optional<Error>)> record() {
    return [this](std::optional<Error> error) { outcomes.push_back(error ? error->code() : 0); };
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::vector<std::int64_t> outcomes;
};

TEST_F(StartTest, KeepsTheServersRecordAndIsInitialisedBeforeItCompletes) {
  h.server.reply("/init", headless::envelope(kApplication), 0.2);
  bool initialisedInCompletion = false;
  Kelvara::start(kAppId, [&](std::optional<Error> error) {
    EXPECT_FALSE(error);
    initialisedInCompletion = Kelvara::isInitialized();
  });
  EXPECT_FALSE(Kelvara::isInitialized());
  Kelvara::start(kAppId, record());
  EXPECT_THAT(outcomes, ElementsAre(0));
  h.time.advance(1);
  EXPECT_TRUE(initialisedInCompletion);
  EXPECT_EQ(SDKManager::shared().application()->applicationId, "app");
  EXPECT_THAT(h.server.requests("/init"), testing::SizeIs(1));
  EXPECT_THAT(
      h.server.lastRequest("/init").query,
      ElementsAre(Pair("aid", kAppId), Pair("appv", "3.2.1"), Pair("osv", "6.1.0"),
                  Pair("pkg", "org.example.host"), Pair("pl", "ios"), Pair("sdkv", "1.2.0")));
  EXPECT_THAT(h.output.lines(),
              testing::IsSupersetOf({"<KVA> [E]: SDK already initialized/initializing.",
                                     "<KVA> [I]: Application initalized: app"}));
}

TEST_F(StartTest, RefusesAnInvalidIdAndForgetsIt) {
  h.reachability.setFlags(0);
  Kelvara::start("", record());
  Kelvara::start("not-a-uuid", record());
  EXPECT_THAT(outcomes, ElementsAre(14, 14));
  EXPECT_FALSE(SDKManager::shared().appId());
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.advance(10);
  EXPECT_THAT(h.server.requests(), IsEmpty());
}

TEST_F(StartTest, WaitsForTheNetworkAndThenStartsByItself) {
  h.server.reply("/init", headless::envelope(kApplication));
  h.reachability.setFlags(0);
  Kelvara::start(kAppId, record());
  EXPECT_THAT(outcomes, ElementsAre(4));
  EXPECT_EQ(h.output.count("<KVA> [E]: Wait connection for initialization."), 1);
  h.time.advance(1);
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.advance(1);
  EXPECT_TRUE(Kelvara::isInitialized());
  EXPECT_THAT(outcomes, ElementsAre(4)) << "the host hears nothing of the retry";
}

TEST_F(StartTest, TriesAgainAfterAFailureAtEveryChangeOfTheNetwork) {
  h.server.reply("/init", headless::errorEnvelope(7, "closed"));
  Kelvara::start(kAppId, record());
  h.time.advance(1);
  EXPECT_THAT(outcomes, ElementsAre(7));
  EXPECT_EQ(h.output.count("<KVA> [E]: Init error: closed"), 1);
  for (int change = 0; change < 2; ++change) {
    h.reachability.setFlags(0);
    h.time.advance(1);
    h.reachability.setFlags(h.reachability.kReachable);
    h.time.advance(1);
  }
  EXPECT_EQ(h.server.count("/init"), 3);
  h.server.reply("/init", headless::envelope(kApplication));
  Kelvara::start(kAppId, record());
  h.time.advance(1);
  EXPECT_THAT(outcomes, ElementsAre(7, 0));
}

TEST_F(StartTest, GoesOnWithoutNotificationsWhenReachabilityCannotStart) {
  h.reachability.fail(headless::HeadlessReachability::Operation::setCallback, 5);
  h.server.reply("/init", headless::envelope(kApplication));
  Kelvara::start(kAppId, record());
  h.time.advance(1);
  EXPECT_THAT(outcomes, ElementsAre(0));
  EXPECT_EQ(h.output.count("<KVA> [E]: Reachability could not start."), 1);
}

TEST_F(StartTest, ReportsAnAnswerWithoutARecord) {
  const std::pair<std::string, const char*> cases[] = {
      {headless::envelope("null"), "No application."},
      {headless::envelope(R"({"aid":"a"})"), "Unknown network error."},
      {R"({"ok":false,"err":null,"data":null,"time":0})", "Unknown parse error."},
  };
  for (const auto& [reply, message] : cases) {
    h.server.reply("/init", reply);
    std::optional<Error> failure;
    Kelvara::start(kAppId, [&](std::optional<Error> error) { failure = error; });
    h.time.advance(1);
    ASSERT_TRUE(failure) << message;
    EXPECT_EQ(failure->localizedDescription(), message);
    EXPECT_EQ(failure->code(), -1);
  }
}

TEST_F(StartTest, ReadsTheMraidScriptOnceForTheLifeOfTheProcess) {
  EXPECT_FALSE(SDKHelper::MRAID::mraidJS());
  h.mainBundle.embedResources(KELVARA_RESOURCES);
  EXPECT_FALSE(SDKHelper::MRAID::mraidJS()) << "looked for again";
}

}  // namespace
}  // namespace kva
