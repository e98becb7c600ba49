#include <algorithm>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using sandbox::Behaviour;
using sandbox::kInterstitialAdUnit;
using sandbox::kRewardedAdUnit;
using testing::ElementsAre;

TEST_F(ShowTest, InterstitialIsShownTappedAndClosed) {
  start();
  auto ad = loaded<KVAInterstital>(kInterstitialAdUnit, KVABidType::interstitial);
  EXPECT_TRUE(ad->isLoaded());
  show(*ad);
  EXPECT_FALSE(ad->isLoaded());

  clickPage();
  ASSERT_TRUE(heard("didClick"));
  clickPage();
  // The countdown of three seconds has not passed: nothing is there to close with.
  clickTopTrailing();
  spinFor(0.5);
  EXPECT_THAT(recorder->events(), ElementsAre("didReceive", "didPresent", "didClick"));
  EXPECT_GE(opened.size(), 1u);
  EXPECT_EQ(opened[0], sandbox::findAdUnit(kInterstitialAdUnit)->creative->clickUrl);

  spinFor(3);
  clickTopTrailing();
  ASSERT_TRUE(heard("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didClick", "didDismiss"));

  const auto report = reportWhen([](const auto& r) { return r.dismissed; });
  EXPECT_TRUE(report.impression && report.clicked && report.completed);
  EXPECT_FALSE(report.failToShow);
  EXPECT_EQ(report.quarter, 0);

  ad->showAdFrom(viewController);
  EXPECT_EQ(recorder->events().back(), "didFailToPresent 0") << "shown again without a load";
}

TEST_F(ShowTest, EscapeClosesOnlyWhatCanBeClosed) {
  server.setScenario("/bid/load",
                     {.behaviour = Behaviour::replaced, .key = "data.crea.adur", .value = "1"});
  start();
  auto ad = loaded<KVAInterstital>(kInterstitialAdUnit, KVABidType::interstitial);
  show(*ad);
  pressEscape();
  spinFor(0.3);
  EXPECT_EQ(recorder->count("didDismiss"), 0);
  spinFor(1);
  pressEscape();
  EXPECT_TRUE(heard("didDismiss"));
}

TEST_F(ShowTest, FailuresReachTheHostOnceEach) {
  start();
  auto ad = KVAInterstital::create();
  ad->setDelegate(recorder);
  ad->showAdFrom(viewController);
  EXPECT_THAT(recorder->events(), ElementsAre("didFailToPresent 0"));

  server.setScenario("/bid/load",
                     {.behaviour = Behaviour::serverError, .code = 503, .message = "busy"});
  auto refused = bid(kInterstitialAdUnit, KVABidType::interstitial);
  ad->loadAd(refused, 1);
  ASSERT_TRUE(heard("didFailToReceive 503"));
  EXPECT_TRUE(ad->isLoading());
  ad->loadAd(refused, 1);
  ASSERT_TRUE(heard("didFailToReceive 9")) << "a bid loads one ad";

  server.clearScenarios();
  server.setScenario("/template", {.behaviour = Behaviour::serverError, .code = 500});
  ad->loadAd(bid(kInterstitialAdUnit, KVABidType::interstitial), 1);
  ASSERT_TRUE(heard("didFailToReceive 11"));
  EXPECT_FALSE(ad->isLoading());
  EXPECT_EQ(recorder->events().size(), 4u);
}

TEST_F(ShowTest, AWindowThatGoesAwayTakesTheAdWithIt) {
  start();
  auto ad = loaded<KVAInterstital>(kInterstitialAdUnit, KVABidType::interstitial);
  show(*ad);
  gtk_window_destroy(window);
  window = nullptr;
  EXPECT_TRUE(heard("didDismiss"));
  spinFor(4);  // beyond the countdown
  EXPECT_EQ(recorder->count("didDismiss"), 1);
  EXPECT_TRUE(reportWhen([](const auto& r) { return r.dismissed; }).impression);
}

/// One clip per codec: H.264 in MP4, VP8 in WebM.
class VideoShow : public ShowTest, public testing::WithParamInterface<std::string_view> {};

TEST_P(VideoShow, PlaysToTheEndAndEarnsTheReward) {
  start();
  auto ad = loaded<KVARewarded>(GetParam(), KVABidType::rewarded);
  show(*ad);
  spinFor(1);
  clickTopLeading();  // sound on
  ASSERT_TRUE(heard("didComplete", 1, 20));
  const auto played = reportWhen([](const auto& r) { return r.quarter == 4; });
  EXPECT_TRUE(played.completed);
  spinFor(0.5);
  clickTopTrailing();
  ASSERT_TRUE(heard("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didComplete", "didDismiss"));
  const auto report = reportWhen([](const auto& r) { return r.dismissed; });
  EXPECT_TRUE(report.impression && !report.clicked);

  std::vector<std::int64_t> quarters;
  for (const auto& exchange : server.exchanges("/bid/stats")) {
    const auto body = nlohmann::json::parse(exchange.request);
    for (const auto& sent : body["stats"]) quarters.push_back(sent["quar"]);
  }
  EXPECT_TRUE(std::ranges::is_sorted(quarters));
  EXPECT_GE(std::ranges::unique(quarters).begin() - quarters.begin(), 3)
      << "the clip's progress did not show in the reports";
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoShow,
                         testing::Values(sandbox::kRewardedAdUnit, sandbox::kRewardedWebMAdUnit),
                         [](const auto& codec) {
                           return codec.param == sandbox::kRewardedAdUnit ? "H264" : "VP8";
                         });

}  // namespace
}  // namespace kva::show
