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

/// The web content processes under this one, each with its page.
int webProcesses(const std::string& parent = std::to_string(getpid())) {
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string pid, name, state, itsParent;
    if (!(stat >> pid >> name >> state >> itsParent) || itsParent != parent) continue;
    found += (name.starts_with("(WebKitWebProce") && state != "Z") + webProcesses(pid);
  }
  return found;
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
  std::vector<std::weak_ptr<KVAInterstital>> ads;
  for (int shown = 1; shown <= 20; ++shown) {
    auto ad = loaded<KVAInterstital>(sandbox::kInterstitialAdUnit, KVABidType::interstitial);
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
  EXPECT_TRUE(spinUntil([] { return webProcesses() <= 1; })) << webProcesses() << " pages are left";
  const double growth = residentMemory() - memoryAfterThird;
  RecordProperty("growthInMiB", std::to_string(growth));
  EXPECT_LT(growth, 12) << "MiB more than after the third ad";
}

}  // namespace
}  // namespace kva::show
