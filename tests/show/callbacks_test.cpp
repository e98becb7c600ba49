#include <gmock/gmock.h>
#include <stage/RealInput.h>
#include <unistd.h>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using testing::ElementsAre;
using enum KVABidType;

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
  // The close control appears after the countdown.
  ASSERT_TRUE(spinUntil([&] {
    clickTopTrailing();
    return waitFor("didDismiss", 1, 1);
  }));

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

TEST_F(ShowTest, AVideoPlaysToTheEndEarnsTheRewardAndIsTapped) {
  start();
  auto ad = loaded(rewarded);
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
  EXPECT_THAT(opened,
              ElementsAre(sandbox::findAdUnit(sandbox::kRewardedAdUnit)->creative->clickUrl));
  clickTopTrailing();
  ASSERT_TRUE(waitFor("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didComplete", "didClick", "didDismiss"));
  const auto report = reportWhen([](const auto& r) { return r.dismissed; });
  EXPECT_TRUE(report.impression && report.clicked);
}

}  // namespace
}  // namespace kva::show
