#include <algorithm>
#include <set>

#include <gmock/gmock.h>
#include <stage/RealInput.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using testing::ElementsAre;
using enum KVABidType;

TEST_F(ShowTest, InterstitialIsShownTappedAndClosed) {
  start();
  auto ad = loaded(interstitial);
  EXPECT_TRUE(ad->isLoaded());
  show(*ad);
  EXPECT_FALSE(ad->isLoaded());

  clickPage();
  ASSERT_TRUE(waitFor("didClick"));
  clickPage();
  // The countdown of three seconds still runs, so the ad cannot be closed.
  clickTopTrailing();
  stage::typeKey(window, GDK_KEY_Escape);
  spinFor(0.5);
  EXPECT_THAT(recorder->events(), ElementsAre("didReceive", "didPresent", "didClick"));
  ASSERT_GE(opened.size(), 1u);
  EXPECT_EQ(opened[0], sandbox::findAdUnit(sandbox::kInterstitialAdUnit)->creative->clickUrl);

  spinFor(3);
  stage::typeKey(window, GDK_KEY_Escape);
  ASSERT_TRUE(waitFor("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didClick", "didDismiss"));

  const auto report = reportWhen([](const auto& r) { return r.dismissed; });
  EXPECT_TRUE(report.impression && report.clicked && report.completed);
  EXPECT_FALSE(report.failToShow);
  EXPECT_EQ(report.quarter, 0);

  ad->showAdFrom(viewController);
  EXPECT_EQ(recorder->events().back(), "didFailToPresent 0 Ad isn't ready.")
      << "shown again without a load";
}

/// Counts the SDK's widgets below `widget`, and those of them that are destroyed on the main
/// thread.
struct WidgetWatch {
  int watched = 0, onMain = 0, elsewhere = 0;

  void watch(GtkWidget* widget) {
    const auto destroyed = [](gpointer self, GObject*) {
      auto& counts = *static_cast<WidgetWatch*>(self);
      ++(gettid() == getpid() ? counts.onMain : counts.elsewhere);
    };
    if (G_OBJECT_TYPE_NAME(widget) == std::string_view("KvaLayoutWidget")) {
      ++watched;
      g_object_weak_ref(G_OBJECT(widget), destroyed, this);
    }
    for (auto* child = gtk_widget_get_first_child(widget); child;
         child = gtk_widget_get_next_sibling(child))
      watch(child);
  }
};

TEST_F(ShowTest, AWorkerMayShowAnAdAndReleaseEverythingAfterTheHost) {
  start();
  auto ad = loaded(interstitial);
  std::thread([&] { ad->showAdFrom(viewController); }).join();
  ASSERT_TRUE(waitFor("didPresent"));
  spinFor(4);  // beyond the countdown
  clickTopTrailing();
  ASSERT_TRUE(waitFor("didDismiss"));

  ad = loaded(interstitial);
  WidgetWatch widgets;
  widgets.watch(GTK_WIDGET(window));
  EXPECT_GE(widgets.watched, 3) << "the layer, the page and its holder";
  host.reset();
  std::thread([ad = std::move(ad), controller = std::move(viewController)]() mutable {
    ad.reset();
    controller.reset();
  }).join();
  EXPECT_TRUE(spinUntil([&] { return widgets.onMain == widgets.watched; })) << widgets.onMain;
  EXPECT_EQ(widgets.elsewhere, 0);
}

/// One clip per codec: H.264 in MP4, VP8 in WebM.
class VideoShow : public ShowTest, public testing::WithParamInterface<std::string_view> {};

TEST_P(VideoShow, PlaysToTheEndEarnsTheRewardAndIsTapped) {
  start();
  auto ad = loaded(rewarded, GetParam());
  show(*ad);
  spinFor(1);
  clickTopLeading();  // sound on
  clickPage();        // the clip has no link
  ASSERT_TRUE(waitFor("didComplete", 1, 20));
  const auto played = reportWhen([](const auto& r) { return r.quarter == 4; });
  EXPECT_TRUE(played.completed);
  EXPECT_FALSE(played.clicked);

  clickPage();  // the end card
  ASSERT_TRUE(waitFor("didClick"));
  EXPECT_THAT(opened, ElementsAre(sandbox::findAdUnit(GetParam())->creative->clickUrl));
  clickTopTrailing();
  ASSERT_TRUE(waitFor("didDismiss"));
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
      << "quarters of the clip in the reports";
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoShow,
                         testing::Values(sandbox::kRewardedAdUnit, sandbox::kRewardedWebMAdUnit),
                         [](const auto& codec) {
                           return codec.param == sandbox::kRewardedAdUnit ? "H264" : "VP8";
                         });

}  // namespace
}  // namespace kva::show
