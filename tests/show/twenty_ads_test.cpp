#include <gmock/gmock.h>

#include <fstream>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

/// Resident memory of this process, in MiB.
double residentMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kibibytes = 0;
    if (word == "VmRSS:" && status >> kibibytes) return kibibytes / 1024;
  }
  return 0;
}

/// The types of a widget and of all below it, as they are nested. Without GTK's tooltip, which it
/// adds to a window and leaves there once the pointer has rested on it.
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
  const std::string widgetsBefore = widgets(GTK_WIDGET(window));
  double memoryAfterThird = 0;
  std::vector<std::weak_ptr<KVAAd>> ads;
  for (int shown = 1; shown <= 20; ++shown) {
    auto ad = loaded(KVABidType::interstitial);
    show(*ad);
    clickTopTrailing();
    ASSERT_TRUE(heard("didDismiss", shown)) << "ad " << shown;
    ads.push_back(ad);
    ad.reset();
    spinFor(0.2);
    if (shown == 3) memoryAfterThird = residentMemory();
  }
  for (const auto& ad : ads) EXPECT_TRUE(ad.expired());
  EXPECT_EQ(widgets(GTK_WIDGET(window)), widgetsBefore);
  // Those of closed ads end in their own time; the warm view's stays.
  EXPECT_TRUE(spinUntil([] { return pageProcesses().size() <= 1; }))
      << pageProcesses().size() << " pages are left";
  const double growth = residentMemory() - memoryAfterThird;
  RecordProperty("growthInMiB", std::to_string(growth));
  EXPECT_LT(growth, 12) << "MiB more than after the third ad";
}

}  // namespace
}  // namespace kva::show
