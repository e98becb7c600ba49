#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/user/Device.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using test::describe;
using testing::ElementsAre;

const std::string kAdUnit = "0b6f3f0e-1d6c-4f6e-8a0e-5a0c6b1d2e3f";

class BidLoader : public Stage {
 protected:
  /// Loads a bid. Returns its price, or "code message", if it is known before the call returns.
  std::string load(const std::string& adUnit = kAdUnit) {
    answers.clear();
    KVABidLoader::loadBid(adUnit, KVABidType::interstitial, [this](auto response, auto error) {
      EXPECT_EQ(response == nullptr, error.has_value());
      answers.push_back(error ? describe(*error) : Json(response->price()).dump());
      last = response;
    });
    return answers.empty() ? "" : answers[0];
  }
  /// Loads a bid. Returns the only answer.
  std::string bid() {
    load();
    h.time.run();
    return answers.size() == 1 ? answers[0] : std::to_string(answers.size()) + " answers";
  }
  void lose() {
    KVABidLoader::sendBidLost(std::make_shared<KVABidResponse>(kPlanId, "bid", 1), 1.2349);
    h.time.run();
  }
  /// Serves plans in order, each with its hourly cap.
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
  setNetwork(Network::down);
  EXPECT_EQ(load("nonsense"), "3 AdUnit isn't valid.");
  FrequencyCappingManager::shared().trackNofill(kAdUnit);
  EXPECT_EQ(load(), "4 No internet connection.");
  lose();
  setNetwork(Network::up);
  EXPECT_EQ(load(), "8 Wait 60 seconds for ad request.");
  EXPECT_EQ(h.server.count("/bid/init") + h.server.count("/bid/lost"), 0);
  EXPECT_EQ(h.output.count("<KVA> [E]: SDK isn't initialized."), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: No internet connection."), 1);
}

TEST_F(BidLoader, RegistersAndBidsWithTheFirstPlanThatHasNotReachedItsCaps) {
  h.defaults.remove(SDKHelper::UserDefaultKeys::userId);
  launch();
  FrequencyCappingManager::shared().trackImpression("capped");
  refuse("/register", 7, "not now");
  EXPECT_EQ(bid(), "7 not now");
  EXPECT_EQ(h.server.count("/bid/init"), 0);
  h.server.reply("/register", headless::envelope(R"({"uid": "user-1"})"));
  offer({});
  EXPECT_EQ(bid(), "5 No plan.");
  offer({{"capped", 1}});
  EXPECT_EQ(bid(), "5 No active plan.");
  offer({{"capped", 1}, {"open", 0}, {"last", 0}});
  EXPECT_EQ(bid(), "2.5") << "no response so far was a no-fill";
  EXPECT_EQ(last->planId() + " " + last->bidId(), "open bid");
  EXPECT_EQ(h.output.count("<KVA> [D]: Frequency capping reached for plan capped"), 2);

  Json request = {{"aid", kAppId},
                  {"uid", "user-1"},
                  {"adid", kAdUnit},
                  {"pl", SDKHelper::Device::platform()},
                  {"adt", "interstitial"},
                  {"osv", h.device.systemVersion()},
                  {"dbra", SDKHelper::Device::deviceBrand()},
                  {"dmod", SDKHelper::Device::deviceModel()}};
  EXPECT_EQ(h.server.lastRequest("/bid/init").json(), request);
  KVABidLoader::loadBid(kAdUnit, KVABidType::rewarded, {});  // no completion
  h.time.run();
  request["adt"] = "rewarded";
  EXPECT_EQ(h.server.lastRequest("/bid/init").json(), request);

  offer({{"open", 0}}, nullptr);
  EXPECT_DEATH(bid(), "plans but no bid");
}

TEST_F(BidLoader, PausesAfterEveryFailureExceptAMissingNetwork) {
  for (const auto& [outcome, error, isPaused] :
       {std::tuple(headless::answer(headless::errorEnvelope(42, "full")), "42 full", true),
        std::tuple(headless::failure(URLError::timedOut), "1001 ", true),
        std::tuple(headless::failure(URLError::notConnectedToInternet), "1009 ", false)}) {
    h.server.reply("/bid/init", outcome);
    EXPECT_TRUE(bid().starts_with(error)) << error;
    EXPECT_EQ(load().starts_with("8 "), isPaused) << error;
    h.time.advance(61);
  }
}

TEST_F(BidLoader, SendsLostBidsAndOnlyLogsTheResponse) {
  h.server.reply("/bid/lost", headless::envelope("true"));
  lose();
  EXPECT_EQ(h.server.lastRequest("/bid/lost").json(), Json({{"bid", "bid"}, {"lecpm", 1234}}));
  EXPECT_EQ(h.output.count("<KVA> [D]: Lost sent successfully."), 1);
  refuse("/bid/lost", 9, "unknown bid");
  lose();
  EXPECT_EQ(h.output.count("<KVA> [D]: SendLost error: unknown bid"), 1);
}

class AdLoading : public AdStage {
 protected:
  /// Loads an ad. Returns the host's events before the call returns.
  std::vector<std::string> load(const std::shared_ptr<KVABidResponse>& response) {
    makeAd();
    ad->loadAd(response, 1.2345);
    return host->events();
  }
};

TEST_F(AdLoading, RefusesInOrderAndUsesUpABidOnlyWithItsRequest) {
  const auto first = bid();
  const auto noBidId = std::make_shared<KVABidResponse>(kPlanId, "b", 1);
  const auto noPlanId = std::make_shared<KVABidResponse>("p", first->bidId(), 1);
  restart();
  EXPECT_THAT(load(noBidId), ElementsAre("didFailToReceive 2 SDK isn't initialized."));
  launch();
  setNetwork(Network::down);
  for (const auto& invalid : {noBidId, noPlanId, std::shared_ptr<KVABidResponse>()})
    EXPECT_THAT(load(invalid), ElementsAre("didFailToReceive 7 Bid response isn't valid."));
  EXPECT_THAT(load(first), ElementsAre("didFailToReceive 4 No internet connection."));
  setNetwork(Network::up);
  refuse("/bid/load", 3, "gone");
  EXPECT_THAT(load(first), testing::IsEmpty());
  h.time.advance(1);
  EXPECT_THAT(host->events(), ElementsAre("didFailToReceive 3 gone"));
  EXPECT_THAT(load(first), ElementsAre("didFailToReceive 9 Bid response already used."));
  EXPECT_EQ(h.server.count("/bid/load"), 1);
  EXPECT_EQ(h.server.lastRequest("/bid/load").json(),
            Json({{"aid", kAppId}, {"bid", first->bidId()}, {"plan", kPlanId}, {"recpm", 1234}}));
}

}  // namespace
}  // namespace kva
