#include <gmock/gmock.h>
#include <malloc.h>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using testing::ElementsAre;
using enum KVABidType;

TEST_F(ShowTest, AWorkerMayShowAVideoAndReleaseEverythingAfterTheHost) {
  const auto isReported = [&](const std::function<bool(const sandbox::ReportRecord&)>& isComplete) {
    return reportsCome([&](const sandbox::State& state) {
      const auto* report = state.report(lastBid->bidId());
      return report && isComplete(*report);
    });
  };
  start();
  auto ad = loaded(rewarded);
  std::thread([&] { ad->showAdFrom(viewController); }).join();
  ASSERT_TRUE(waitFor("didPresent"));
  spinFor(1);
  clickTopLeading();  // sound on
  clickPage();        // the clip has no link
  ASSERT_TRUE(waitFor("didComplete", 1, 20));
  ASSERT_TRUE(isReported([](const auto& r) { return r.completed && r.quarter == 4; }));
  clickPage();  // the end card
  ASSERT_TRUE(waitFor("didClick"));
  EXPECT_THAT(opened,
              ElementsAre(sandbox::findAdUnit(sandbox::kRewardedAdUnit)->creative->clickUrl));
  clickTopTrailing();
  ASSERT_TRUE(waitFor("didDismiss"));
  EXPECT_THAT(recorder->events(),
              ElementsAre("didReceive", "didPresent", "didComplete", "didClick", "didDismiss"));
  EXPECT_TRUE(isReported([](const auto& r) { return r.impression && r.clicked && r.dismissed; }));

  ad = loaded(interstitial);
  // The threads that destroy the page and the widgets around it.
  std::vector<pid_t> threads;
  std::size_t watched = 0;
  for (auto* widget = GTK_WIDGET(page()); !GTK_IS_WINDOW(widget);
       widget = gtk_widget_get_parent(widget), ++watched)
    g_object_weak_ref(
        G_OBJECT(widget),
        [](gpointer all, GObject*) { static_cast<decltype(threads)*>(all)->push_back(gettid()); },
        &threads);
  host.reset();
  std::thread([ad = std::move(ad), controller = std::move(viewController)]() mutable {
    ad.reset();
    controller.reset();
  }).join();
  EXPECT_TRUE(spinUntil([&] { return threads.size() == watched; })) << threads.size();
  EXPECT_THAT(threads, testing::Each(getpid()));
}

/// What this process has allocated and not freed, in MiB. Resident memory is no measure: it moves
/// by 15 MiB with the gaps that the software renderer leaves in the heap.
double allocatedMemory() {
  const auto heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd) / (1 << 20);
}

/// The types of a widget and its descendants, nested. Ignores the tooltip that GTK adds to a window
/// when the pointer rests on it.
std::string widgets(GtkWidget* widget) {
  std::string tree = G_OBJECT_TYPE_NAME(widget);
  for (auto* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child))
    if (G_OBJECT_TYPE_NAME(child) != std::string_view("GtkTooltipWindow"))
      tree += " (" + widgets(child) + ")";
  return tree;
}

TEST_F(ShowTest, TwentyAdsInOneProcessLeaveNothingBehind) {
  server.setScenario(
      "/bid/load",
      {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea.adur", .value = "0"});
  start();
  std::string widgetsBefore;  // with the page on standby
  ASSERT_TRUE(spinUntil([&] {
    widgetsBefore = widgets(GTK_WIDGET(window));
    return widgetsBefore.find("WebKitWebView") != std::string::npos;
  }));
  double memoryAfterThird = 0;
  std::vector<std::weak_ptr<KVAAd>> ads;
  for (int shown = 1; shown <= 20; ++shown) {
    auto ad = loaded(interstitial);
    show(*ad);
    clickTopTrailing();
    ASSERT_TRUE(waitFor("didDismiss", shown)) << "ad " << shown;
    ads.push_back(ad);
    ad.reset();
    spinFor(0.2);
    if (shown == 3) memoryAfterThird = allocatedMemory();
  }
  for (const auto& ad : ads) EXPECT_TRUE(ad.expired());
  EXPECT_TRUE(spinUntil([&] { return widgets(GTK_WIDGET(window)) == widgetsBefore; }))
      << widgets(GTK_WIDGET(window)) << " was " << widgetsBefore;
  EXPECT_TRUE(isOnlyWarmPageLeft()) << pageProcesses().size() << " web processes";
  const double growth = allocatedMemory() - memoryAfterThird;
  RecordProperty("growthInMiB", std::to_string(growth));
  EXPECT_LT(growth, 2) << "MiB more than after the third ad";
}

}  // namespace
}  // namespace kva::show
