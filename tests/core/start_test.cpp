#include <gmock/gmock.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::Pair;

const std::string kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const std::string kApplication = R"({"aid":"app","pp":"https://example.org/privacy"})";

class StartTest : public testing::Test {
 protected:
  /// Starts, and notes what the completion was given: the error's code, or 0.
  void start(const std::string& appId = kAppId) {
    Kelvara::start(
        appId, [this](std::optional<Error> error) { heard.push_back(error ? error->code() : 0); });
  }
  void setNetwork(bool isReachable) {
    h.reachability.setFlags(isReachable ? h.reachability.kReachable : 0);
    h.time.advance(1);
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::vector<std::int64_t> heard;
};

TEST_F(StartTest, StartsTheManagersInOrderAndIsInitialisedBeforeItCompletes) {
  h.defaults.set(SDKHelper::UserDefaultKeys::userId, std::string("user"));
  h.identifiers.authorize(kAppId);
  Kelvara::setUserConsent(true);
  h.server.reply("/init", headless::envelope(R"({"aid":"app","pp":"https://example.org/privacy",
      "hasc":true,"tids":[{"idfa":")" + md5Value(kAppId) +
                                             R"(","sandbox":true}]})"));
  Kelvara::start(kAppId, [&](std::optional<Error> error) {
    EXPECT_FALSE(error);
    EXPECT_TRUE(Kelvara::isInitialized());
    heard.push_back(1);
  });
  EXPECT_FALSE(Kelvara::isInitialized());
  start();
  EXPECT_THAT(heard, ElementsAre(0)) << "a start that is under way";
  h.time.advance(1);
  EXPECT_THAT(heard, ElementsAre(0, 1));
  EXPECT_EQ(SDKManager::shared().application()->applicationId, "app");
  std::vector<std::string> sent;
  for (const auto& request : h.server.requests()) sent.push_back(request.base + request.path);
  EXPECT_THAT(sent, ElementsAre(h.apiBases.production + "/init", h.apiBases.sandbox + "/update",
                                h.apiBases.sandbox + "/track"));
  EXPECT_THAT(
      h.server.lastRequest("/init").query,
      ElementsAre(Pair("aid", kAppId), Pair("appv", "3.2.1"), Pair("osv", "6.1.0"),
                  Pair("pkg", "org.example.host"), Pair("pl", "ios"), Pair("sdkv", "1.2.0")));
  EXPECT_THAT(h.output.lines(),
              testing::IsSupersetOf({"<KVA> [E]: SDK already initialized/initializing.",
                                     "<KVA> [I]: Application initalized: app"}));
}

TEST_F(StartTest, TriesAgainByItselfAtEveryChangeOfTheNetworkUntilItSucceeds) {
  h.server.reply("/init", headless::errorEnvelope(7, "closed"));
  start("not-a-uuid");
  setNetwork(false);
  setNetwork(true);
  EXPECT_EQ(h.server.count(""), 0) << "an id that was refused was kept";
  setNetwork(false);
  start();
  EXPECT_THAT(heard, ElementsAre(14, 4));
  EXPECT_EQ(h.output.count("<KVA> [E]: Wait connection for initialization."), 1);
  setNetwork(true);
  EXPECT_EQ(h.server.count("/init"), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Init error: closed"), 1);
  start();
  h.time.advance(1);
  h.server.reply("/init", headless::envelope(kApplication));
  setNetwork(false);
  setNetwork(true);
  EXPECT_TRUE(Kelvara::isInitialized());
  EXPECT_EQ(h.server.count("/init"), 3);
  EXPECT_THAT(heard, ElementsAre(14, 4, 7)) << "the host hears nothing of what starts by itself";
}

TEST_F(StartTest, TriesAgainWhenTheNetworkCameBackDuringARequestThatThenFailed) {
  const auto fail = headless::failure(URLError::networkConnectionLost);
  h.server.reply("/init", fail, 5);
  start();
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 1) << "the network has not changed";
  setNetwork(false);
  setNetwork(true);
  setNetwork(false);
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 2) << "the network has gone again";

  setNetwork(true);
  h.reachability.setFlags(0);
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.advance(4.5);
  EXPECT_EQ(h.server.count("/init"), 4);
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 4) << "one change, one more attempt";
  EXPECT_THAT(heard, ElementsAre(1005));
  EXPECT_EQ(h.output.count("<KVA> [E]: Init error: "), 4);
  EXPECT_EQ(h.output.lines().size(), 4u);
}

TEST_F(StartTest, GoesOnWithoutNotificationsWhenReachabilityCannotStart) {
  h.reachability.fail(headless::HeadlessReachability::Operation::setCallback, 5);
  h.server.reply("/init", headless::envelope(kApplication));
  start();
  h.time.advance(1);
  EXPECT_THAT(heard, ElementsAre(0));
  EXPECT_EQ(h.output.count("<KVA> [E]: Reachability could not start."), 1);
}

}  // namespace
}  // namespace kva
