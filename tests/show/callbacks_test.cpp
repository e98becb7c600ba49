#include <algorithm>
#include <set>

#include <gmock/gmock.h>
#include <stage/RealInput.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using sandbox::Behaviour;
using testing::ElementsAre;
using enum KVABidType;

TEST_F(ShowTest, InterstitialIsShownTappedAndClosed) {
  start();
  auto ad = loaded(interstitial);
  EXPECT_TRUE(ad->isLoaded());
  show(*ad);
  EXPECT_FALSE(ad->isLoaded());

  clickPage();
  ASSERT_TRUE(heard("didClick"));
  clickPage();
  // The countdown of three seconds has not passed: nothing is there to close with.
  clickTopTrailing();
  stage::typeKey(window, GDK_KEY_Escape);
  spinFor(0.5);
  EXPECT_THAT(recorder->events(), ElementsAre("didReceive", "didPresent", "didClick"));
  ASSERT_GE(opened.size(), 1u);
  EXPECT_EQ(opened[0], sandbox::findAdUnit(sandbox::kInterstitialAdUnit)->creative->clickUrl);

  spinFor(3);
  stage::typeKey(window, GDK_KEY_Escape);
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

class EitherKind : public ShowTest, public testing::WithParamInterface<KVABidType> {};

TEST_P(EitherKind, FailuresReachTheHostOnceEach) {
  start();
  auto ad = makeAd(GetParam());
  ad->showAdFrom(viewController);
  EXPECT_THAT(recorder->events(), ElementsAre("didFailToPresent 0"));

  server.setScenario("/bid/load",
                     {.behaviour = Behaviour::serverError, .code = 503, .message = "busy"});
  auto refused = bid(GetParam());
  ad->loadAd(refused, 1);
  ASSERT_TRUE(heard("didFailToReceive 503"));
  EXPECT_TRUE(ad->isLoading());
  ad->loadAd(refused, 1);
  ASSERT_TRUE(heard("didFailToReceive 9")) << "a bid loads one ad";

  server.clearScenarios();
  server.setScenario("/template", {.behaviour = Behaviour::serverError, .code = 500});
  ad->loadAd(bid(GetParam()), 1);
  ASSERT_TRUE(heard("didFailToReceive 11"));
  EXPECT_FALSE(ad->isLoading());
  EXPECT_EQ(recorder->events().size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, EitherKind, testing::Values(interstitial, rewarded),
                         [](const auto& kind) {
                           return kind.param == rewarded ? "Rewarded" : "Interstitial";
                         });

TEST_F(ShowTest, AWindowThatGoesAwayTakesTheAdWithIt) {
  start();
  auto ad = loaded(interstitial);
  show(*ad);
  gtk_window_destroy(window);
  window = nullptr;
  EXPECT_TRUE(heard("didDismiss"));
  spinFor(4);  // beyond the countdown
  EXPECT_EQ(recorder->count("didDismiss"), 1);
  EXPECT_TRUE(reportWhen([](const auto& r) { return r.dismissed; }).impression);
}

/// Counts on which threads the SDK's widgets in a window are destroyed.
class DestructionThreads {
 public:
  explicit DestructionThreads(GtkWidget* window) { watch(window); }

  int watched = 0, onMain = 0, elsewhere = 0;

 private:
  void watch(GtkWidget* widget) {
    if (G_OBJECT_TYPE_NAME(widget) == std::string_view("KvaLayoutWidget")) {
      ++watched;
      g_object_weak_ref(G_OBJECT(widget), gone, this);
    }
    for (auto* child = gtk_widget_get_first_child(widget); child;
         child = gtk_widget_get_next_sibling(child))
      watch(child);
  }
  static void gone(gpointer self, GObject*) {
    auto& threads = *static_cast<DestructionThreads*>(self);
    ++(gettid() == getpid() ? threads.onMain : threads.elsewhere);
  }
};

TEST_F(ShowTest, AWorkerMayShowAnAdAndReleaseEverythingAfterTheHost) {
  start();
  auto ad = loaded(interstitial);
  std::thread([&] { ad->showAdFrom(viewController); }).join();
  ASSERT_TRUE(heard("didPresent"));
  spinFor(4);  // beyond the countdown
  clickTopTrailing();
  ASSERT_TRUE(heard("didDismiss"));

  ad = loaded(interstitial);
  DestructionThreads threads(GTK_WIDGET(window));
  EXPECT_GE(threads.watched, 3) << "the layer, the page and what holds it";
  host.reset();
  std::thread([ad = std::move(ad), controller = std::move(viewController)]() mutable {
    ad.reset();
    controller.reset();
  }).join();
  EXPECT_TRUE(spinUntil([&] { return threads.onMain == threads.watched; })) << threads.onMain;
  EXPECT_EQ(threads.elsewhere, 0);
}

/// One clip per codec: H.264 in MP4, VP8 in WebM.
class VideoShow : public ShowTest, public testing::WithParamInterface<std::string_view> {};

TEST_P(VideoShow, PlaysToTheEndEarnsTheRewardAndIsTapped) {
  start();
  auto ad = loaded(rewarded, GetParam());
  show(*ad);
  spinFor(1);
  clickTopLeading();  // sound on
  clickPage();        // the clip itself leads nowhere
  ASSERT_TRUE(heard("didComplete", 1, 20));
  const auto played = reportWhen([](const auto& r) { return r.quarter == 4; });
  EXPECT_TRUE(played.completed);
  EXPECT_FALSE(played.clicked);

  clickPage();  // the end card
  ASSERT_TRUE(heard("didClick"));
  EXPECT_THAT(opened, ElementsAre(sandbox::findAdUnit(GetParam())->creative->clickUrl));
  clickTopTrailing();
  ASSERT_TRUE(heard("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didComplete", "didClick", "didDismiss"));
  const auto report = reportWhen([](const auto& r) { return r.dismissed; });
  EXPECT_TRUE(report.impression && report.clicked);

  std::vector<std::int64_t> quarters;
  for (const auto& exchange : server.exchanges("/bid/stats")) {
    const auto body = nlohmann::json::parse(exchange.request);
    for (const auto& sent : body["stats"]) quarters.push_back(sent["quar"]);
  }
  EXPECT_TRUE(std::ranges::is_sorted(quarters));
  EXPECT_GE(std::set(quarters.begin(), quarters.end()).size(), 3u)
      << "the clip's progress did not show in the reports";
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoShow,
                         testing::Values(sandbox::kRewardedAdUnit, sandbox::kRewardedWebMAdUnit),
                         [](const auto& codec) {
                           return codec.param == sandbox::kRewardedAdUnit ? "H264" : "VP8";
                         });

}  // namespace
}  // namespace kva::show
