#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

struct Listener : AdLoaderDelegate {
  std::string heard;
  void adLoaderDidReceiveAd(AdLoader& adLoader) override {
    heard += "ad of " + adLoader.adData().value().bidId;
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override {
    heard += std::to_string(error.code()) + " " + error.localizedDescription();
  }
};

class AdLoading : public Stage {
 protected:
  AdLoading() {
    loader->setDelegate(listener);
    serveAd({});
  }
  /// What the listener hears before `load` returns.
  std::string load(const std::shared_ptr<KVABidResponse>& response) {
    loader->load(response, 1.2345);
    return std::exchange(listener->heard, "");
  }
  std::string heardLater() {
    h.time.advance(1);
    return std::exchange(listener->heard, "");
  }
  const std::shared_ptr<KVABidResponse> first = bid(), second = bid(), third = bid();
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<AdLoader> loader = AdLoader::create();
};

TEST_F(AdLoading, RefusesInOrderAndUsesABidUpOnlyWithItsRequest) {
  const auto noBidId = std::make_shared<KVABidResponse>(kPlanId, "b", 1);
  const auto noPlanId = std::make_shared<KVABidResponse>("p", first->bidId(), 1);
  restart();
  EXPECT_EQ(load(noBidId), "2 SDK isn't initialized.");
  launch();
  h.reachability.setFlags(0);
  h.time.run();
  for (const auto& invalid : {noBidId, noPlanId, std::shared_ptr<KVABidResponse>()})
    EXPECT_EQ(load(invalid), "7 Bid response isn't valid.");
  EXPECT_EQ(load(first), "4 No internet connection.");
  h.reachability.setFlags(h.reachability.kReachable);
  h.time.run();
  EXPECT_EQ(load(first), "");
  EXPECT_EQ(load(first), "9 Bid response already used.");
  EXPECT_EQ(heardLater(), "ad of " + first->bidId());
  EXPECT_EQ(h.server.count("/bid/load"), 1);
  EXPECT_EQ(h.server.lastRequest("/bid/load").json(),
            Json({{"aid", kAppId}, {"bid", first->bidId()}, {"plan", kPlanId}, {"recpm", 1234}}));
  FrequencyCappingManager::shared().trackBidUsed(second->bidId());
  EXPECT_EQ(load(second), "9 Bid response already used.");
}

TEST_F(AdLoading, AFailedRequestUsesTheBidUpAndLeavesTheLastAd) {
  load(first);
  heardLater();
  h.server.reply("/bid/load", headless::errorEnvelope(3, "gone"));
  load(second);
  EXPECT_EQ(heardLater(), "3 gone");
  EXPECT_TRUE(loader->adData());
  EXPECT_EQ(load(second), "9 Bid response already used.");

  load(third);
  const std::weak_ptr<AdLoader> weak = std::exchange(loader, nullptr);
  EXPECT_FALSE(weak.expired()) << "it lives until its answer";
  EXPECT_EQ(heardLater(), "3 gone");
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kva
