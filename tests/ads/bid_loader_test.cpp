#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/user/Device.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

const std::string kAdUnit = "0b6f3f0e-1d6c-4f6e-8a0e-5a0c6b1d2e3f";

class BidLoader : public Stage {
 protected:
  /// What came of a bid before the call returned: its price, or the error as "code message".
  std::string load(const std::string& adUnit = kAdUnit) {
    answers.clear();
    KVABidLoader::loadBid(adUnit, KVABidType::interstitial, [this](auto response, auto error) {
      EXPECT_EQ(response == nullptr, error.has_value());
      answers.push_back(error ? std::to_string(error->code()) + " " + error->localizedDescription()
                              : Json(response->price()).dump());
      last = response;
    });
    return answers.empty() ? "" : answers[0];
  }
  /// What came of it once, in the end.
  std::string bid() {
    load();
    h.time.run();
    return answers.size() == 1 ? answers[0] : std::to_string(answers.size()) + " answers";
  }

  void lose() {
    KVABidLoader::sendBidLost(std::make_shared<KVABidResponse>(kPlanId, "bid", 1), 1.2349);
    h.time.run();
  }

  /// Plans in the order of the server's preference, each with its cap for the hour.
  void offer(const std::vector<std::pair<std::string, int>>& plans, const Json& bidId = "bid") {
    Json list = Json::array();
    for (const auto& [id, cap] : plans)
      list.push_back({{"plan", id}, {"capd", 0}, {"caph", cap}, {"ecpm", 2500}});
    h.server.reply("/bid/init", headless::envelope(Json{{"bid", bidId}, {"plans", list}}.dump()));
  }

  std::vector<std::string> answers;
  std::shared_ptr<KVABidResponse> last;
};

TEST_F(BidLoader, RefusesInOrderWithoutTraffic) {
  restart();
  EXPECT_EQ(load("nonsense"), "2 SDK isn't initialized.");
  lose();
  launch();
  h.reachability.setFlags(0);
  h.time.run();
  EXPECT_EQ(load("nonsense"), "3 AdUnit isn't valid.");
  FrequencyCappingManager::shared().trackNofill(kAdUnit);
  EXPECT_EQ(load(), "4 No internet connection.");
  lose();
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.run();
  EXPECT_EQ(load(), "8 Wait 60 seconds for ad request.");
  EXPECT_EQ(h.server.count("/bid/init") + h.server.count("/bid/lost"), 0);
  EXPECT_EQ(h.output.count("<KVA> [E]: SDK isn't initialized."), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: No internet connection."), 1);
}

TEST_F(BidLoader, RegistersAndBidsWithTheFirstPlanThatItsCapsAllow) {
  h.defaults.remove(SDKHelper::UserDefaultKeys::userId);
  launch();
  Log::shared().setLogLevel(LogLevel::d);
  FrequencyCappingManager::shared().trackImpression("capped");
  h.server.reply("/register", headless::errorEnvelope(7, "not now"));
  EXPECT_EQ(bid(), "7 not now");
  EXPECT_EQ(h.server.count("/bid/init"), 0);
  h.server.reply("/register", headless::envelope(R"({"uid": "user-1"})"));
  offer({});
  EXPECT_EQ(bid(), "5 No plan.");
  offer({{"capped", 1}});
  EXPECT_EQ(bid(), "5 No active plan.");
  offer({{"capped", 1}, {"open", 0}, {"last", 0}});
  EXPECT_EQ(bid(), "2.5");  // none of these answers was a no-fill
  EXPECT_EQ(last->planId(), "open");
  EXPECT_EQ(last->bidId(), "bid");
  EXPECT_EQ(h.output.count("<KVA> [D]: Frequency capping reached for plan capped"), 2);

  Json asked = {{"aid", kAppId},
                {"uid", "user-1"},
                {"adid", kAdUnit},
                {"pl", SDKHelper::Device::platform()},
                {"adt", "interstitial"},
                {"osv", h.device.systemVersion()},
                {"dbra", SDKHelper::Device::deviceBrand()},
                {"dmod", SDKHelper::Device::deviceModel()}};
  EXPECT_EQ(h.server.lastRequest("/bid/init").json(), asked);
  KVABidLoader::loadBid(kAdUnit, KVABidType::rewarded, {});  // hosts need not listen
  h.time.run();
  asked["adt"] = "rewarded";
  EXPECT_EQ(h.server.lastRequest("/bid/init").json(), asked);

  offer({{"open", 0}}, nullptr);
  EXPECT_DEATH(bid(), "plans and no bid");
}

TEST_F(BidLoader, EveryFailureButAMissingNetworkStartsThePause) {
  for (const auto& [outcome, code] :
       {std::pair(headless::answer(headless::errorEnvelope(42, "full")), "42 full"),
        std::pair(headless::failure(URLError::timedOut), "1001 ")}) {
    h.server.reply("/bid/init", outcome);
    EXPECT_TRUE(bid().starts_with(code)) << code;
    EXPECT_TRUE(load().starts_with("8 ")) << code;
    h.time.advance(61);
  }
  h.server.reply("/bid/init", headless::failure(URLError::notConnectedToInternet));
  EXPECT_TRUE(bid().starts_with("1009 "));
  offer({{"open", 0}});
  EXPECT_EQ(bid(), "2.5");
}

TEST_F(BidLoader, LostBidsAreSentAndOnlyLogged) {
  Log::shared().setLogLevel(LogLevel::d);
  h.server.reply("/bid/lost", headless::envelope("true"));
  lose();
  EXPECT_EQ(h.server.lastRequest("/bid/lost").json(), Json({{"bid", "bid"}, {"lecpm", 1234}}));
  EXPECT_EQ(h.output.count("<KVA> [D]: Lost sent successfully."), 1);
  h.server.reply("/bid/lost", headless::errorEnvelope(9, "unknown bid"));
  lose();
  EXPECT_EQ(h.output.count("<KVA> [D]: SendLost error: unknown bid"), 1);
}

}  // namespace
}  // namespace kva
