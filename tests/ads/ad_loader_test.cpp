#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

struct Listener : AdLoaderDelegate {
  std::string heard;
  void adLoaderDidReceiveAd(AdLoader& adLoader) override {
    heard += "ad " + adLoader.adData().value().templateId;
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override {
    heard += std::to_string(error.code()) + " " + error.localizedDescription();
  }
};

class AdLoading : public AdsTest {
 protected:
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<AdLoader> loader = AdLoader::create();

  AdLoading() {
    loader->setDelegate(listener);
    h.server.reply("/bid/load", headless::envelope(adJson().dump()));
  }
  /// What the listener hears before `load` returns.
  std::string load(const std::string& bidId = kBid, const std::string& planId = kPlanA) {
    loader->load(std::make_shared<KVABidResponse>(planId, bidId, 1), 1.2345);
    return std::exchange(listener->heard, "");
  }
  std::string heardLater() {
    h.time.advance(1);
    return std::exchange(listener->heard, "");
  }
};

TEST_F(AdLoading, RefusesInOrderAndUsesABidUpOnlyWithItsRequest) {
  EXPECT_EQ(load("b"), "2 SDK isn't initialized.");
  start();
  setNetwork(false);
  EXPECT_EQ(load("b"), "7 Bid response isn't valid.");
  EXPECT_EQ(load(kBid, "p"), "7 Bid response isn't valid.");
  loader->load(nullptr, 1);
  EXPECT_EQ(heardLater(), "7 Bid response isn't valid.");
  EXPECT_EQ(load(), "4 No internet connection.");
  setNetwork(true);
  EXPECT_EQ(load(), "");
  EXPECT_EQ(load(), "9 Bid response already used.");
  EXPECT_EQ(heardLater(), "ad t1");
  EXPECT_EQ(load(), "9 Bid response already used.");
  EXPECT_EQ(h.server.count("/bid/load"), 1);
  EXPECT_EQ(h.server.lastRequest("/bid/load").json(),
            Json({{"aid", kAppId}, {"bid", kBid}, {"plan", kPlanA}, {"recpm", 1234}}));
  FrequencyCappingManager::shared().trackBidUsed(kPlanB);
  EXPECT_EQ(load(kPlanB), "9 Bid response already used.");
}

TEST_F(AdLoading, AFailedRequestUsesTheBidUpAndLeavesTheLastAd) {
  start();
  load(kPlanB);
  heardLater();
  h.server.reply("/bid/load", headless::errorEnvelope(3, "gone"));
  load();
  EXPECT_EQ(heardLater(), "3 gone");
  EXPECT_TRUE(loader->adData());
  EXPECT_EQ(load(), "9 Bid response already used.");

  load(kAdUnit);
  const std::weak_ptr<AdLoader> weak = std::exchange(loader, nullptr);
  EXPECT_EQ(heardLater(), "3 gone") << "it lives until its answer";
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kva
