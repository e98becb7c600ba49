#include <malloc.h>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

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
    auto ad = loaded(KVABidType::interstitial);
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
