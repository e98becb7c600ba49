#include <gmock/gmock.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre, testing::Pair;

const std::string kAppId = "E621E1F8-C36C-495A-93fc-0c247a3e6e5f";

class StartTest : public testing::Test {
 protected:
  /// Starts and records the code of the completion's error, or 0.
  void start(const std::string& appId = kAppId) {
    Kelvara::start(appId, [this](auto error) { codes.push_back(error ? error->code() : 0); });
  }
  /// Changes the network to each state in turn.
  void setNetwork(std::initializer_list<bool> states) {
    for (const bool isReachable : states) {
      h.reachability.setFlags(isReachable ? h.reachability.kReachable : 0);
      h.time.advance(1);
    }
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::vector<std::int64_t> codes;
};

TEST_F(StartTest, StartsTheManagersInOrderAndIsInitialisedBeforeItCompletes) {
  // The start needs no notifications of the network.
  h.reachability.fail(headless::HeadlessReachability::Operation::setCallback, 5);
  h.defaults.set(SDKHelper::UserDefaultKeys::userId, std::string("user"));
  h.identifiers.authorize(kAppId);
  Kelvara::setUserConsent(true);
  h.server.reply("/init", headless::envelope(R"({"aid":"app","pp":"https://example.org/privacy",
      "hasc":true,"tids":[{"idfa":"e9eba506755220aa6e3c7bbe978c2873","sandbox":true}]})"));
  Kelvara::start(kAppId, [&](std::optional<Error> error) {
    EXPECT_FALSE(error);
    EXPECT_TRUE(Kelvara::isInitialized());
    codes.push_back(1);
  });
  EXPECT_FALSE(Kelvara::isInitialized());
  start();
  EXPECT_THAT(codes, ElementsAre(0)) << "the SDK is starting";
  h.time.advance(1);
  EXPECT_THAT(codes, ElementsAre(0, 1));
  EXPECT_EQ(SDKManager::shared().application()->applicationId, "app");
  std::vector<std::string> sent;
  for (const auto& request : h.server.requests()) sent.push_back(request.base + request.path);
  EXPECT_THAT(sent, ElementsAre(h.apiBases.production + "/init", h.apiBases.sandbox + "/update",
                                h.apiBases.sandbox + "/track"));
  EXPECT_THAT(h.server.lastRequest("/init").query,
              ElementsAre(Pair("aid", kAppId), Pair("appv", "3.2.1"), Pair("osv", "6.1.0"),
                          Pair("pkg", "org.example.host"), Pair("pl", "ios"),
                          Pair("sdkv", Kelvara::sdkVersion())));
  EXPECT_THAT(h.output.lines(),
              testing::IsSupersetOf({"<KVA> [E]: Reachability could not start.",
                                     "<KVA> [E]: SDK already initialized/initializing.",
                                     "<KVA> [I]: Application initalized: app"}));
}

TEST_F(StartTest, StartsAgainAtEachChangeOfTheNetworkUntilItSucceeds) {
  h.server.reply("/init", headless::errorEnvelope(7, "closed"));
  for (const char* invalid :
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8-C36C-495A-93FC0-C247A3E6E5F"}) {
    start(invalid);
    EXPECT_THAT(std::exchange(codes, {}), ElementsAre(14)) << invalid;
  }
  setNetwork({false, true, false});
  EXPECT_EQ(h.server.count(""), 0) << "a refused id is not stored";
  start();
  EXPECT_THAT(codes, ElementsAre(4));
  EXPECT_EQ(h.output.count("<KVA> [E]: Wait connection for initialization."), 1);
  setNetwork({true});
  EXPECT_EQ(h.server.count("/init"), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: Init error: closed"), 1);
  start();
  h.time.advance(1);
  h.server.reply("/init",
                 headless::envelope(R"({"aid":"app","pp":"https://example.org/privacy"})"));
  setNetwork({false, true});
  EXPECT_TRUE(Kelvara::isInitialized());
  EXPECT_EQ(h.server.count("/init"), 3);
  EXPECT_THAT(codes, ElementsAre(4, 7)) << "an automatic start calls no completion";
}

TEST_F(StartTest, StartsAgainWhenTheNetworkCameBackDuringARequestThatThenFailed) {
  h.server.reply("/init", headless::failure(URLError::networkConnectionLost), 5);
  start();
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 1) << "the network has not changed";
  setNetwork({false, true, false});
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 2) << "the network is unreachable again";

  setNetwork({true});
  h.reachability.setFlags(0);
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.advance(4.5);
  EXPECT_EQ(h.server.count("/init"), 4);
  h.time.advance(20);
  EXPECT_EQ(h.server.count("/init"), 4) << "one change starts one request";
  EXPECT_THAT(codes, ElementsAre(1005));
  EXPECT_EQ(h.output.count("<KVA> [E]: Init error: "), 4);
  EXPECT_EQ(h.output.lines().size(), 4u);
}

}  // namespace
}  // namespace kva
