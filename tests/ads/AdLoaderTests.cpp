#include <memory>
#include <vector>

#include <Kelvara/ads/AdLoader.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

using Heard = std::vector<std::string>;

struct Listener : AdLoaderDelegate {
  Heard heard;
  void adLoaderDidReceiveAd(AdLoader& adLoader) override {
    heard.push_back("ad " + adLoader.adData().value().templateId);
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override {
    heard.push_back(std::to_string(error.code()) + " " + error.localizedDescription());
  }
};

class AdLoading : public AdsTest {
 protected:
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<AdLoader> loader = makeLoader();
  const std::shared_ptr<KVABidResponse> bid = makeBid(kBid);

  AdLoading() { h.server.reply("/bid/load", headless::envelope(adJson().dump()), 1); }

  static std::shared_ptr<KVABidResponse> makeBid(const std::string& bidId) {
    return std::make_shared<KVABidResponse>(kPlanA, bidId, 1);
  }
  std::shared_ptr<AdLoader> makeLoader() {
    auto made = AdLoader::create();
    made->setDelegate(listener);
    return made;
  }
  /// What the listener has heard when `load` returns.
  Heard load(const std::shared_ptr<KVABidResponse>& response) {
    listener->heard.clear();
    loader->load(response, 1.2345);
    return listener->heard;
  }
};

TEST_F(AdLoading, RefusesInOrderAndUsesABidUpOnlyWithItsRequest) {
  EXPECT_EQ(load(makeBid("b")), Heard{"2 SDK isn't initialized."});
  start();
  setNetwork(false);
  EXPECT_EQ(load(makeBid("b")), Heard{"7 Bid response isn't valid."});
  EXPECT_EQ(load(std::make_shared<KVABidResponse>("p", kBid, 1)),
            Heard{"7 Bid response isn't valid."});
  EXPECT_EQ(load(nullptr), Heard{"7 Bid response isn't valid."});
  EXPECT_EQ(load(bid), Heard{"4 No internet connection."});
  setNetwork(true);
  EXPECT_EQ(load(bid), Heard{});
  EXPECT_EQ(load(bid), Heard{"9 Bid response already used."});
  h.time.advance(2);
  EXPECT_EQ(listener->heard, (Heard{"9 Bid response already used.", "ad t1"}));
  EXPECT_EQ(load(bid), Heard{"9 Bid response already used."});
  EXPECT_EQ(h.server.count("/bid/load"), 1);
  EXPECT_EQ(h.server.lastRequest("/bid/load").json(),
            Json({{"aid", kAppId}, {"bid", kBid}, {"plan", kPlanA}, {"recpm", 1234}}));
}

TEST_F(AdLoading, AFailedRequestUsesTheBidUpAndLeavesTheLastAd) {
  start();
  load(makeBid(kPlanB));
  h.time.advance(2);
  h.server.reply("/bid/load", headless::errorEnvelope(3, "gone"));
  load(bid);
  h.time.run();
  EXPECT_EQ(listener->heard, Heard{"3 gone"});
  EXPECT_EQ(loader->adData(), *Ad::decode(adJson()));
  EXPECT_EQ(load(bid), Heard{"9 Bid response already used."});
}

TEST_F(AdLoading, LivesUntilItsAnswerAndDropsItWithoutADelegate) {
  start();
  load(bid);
  loader.reset();
  h.time.advance(2);
  EXPECT_EQ(listener->heard, Heard{"ad t1"});

  loader = makeLoader();
  load(makeBid(kPlanB));
  listener.reset();
  h.time.advance(2);
  EXPECT_TRUE(loader->adData());
}

}  // namespace
}  // namespace kva
