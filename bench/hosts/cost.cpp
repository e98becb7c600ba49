// What an ad costs its host while it is on screen, what a started SDK costs without an ad, and what
// twenty ads leave behind.
#include "bench/hosts/Hosts.h"

int main() {
  using namespace kva::bench;
  // WebKit's thread that returns free memory ends about half a minute after a load. A measurement
  // of 30 seconds ends later, so the wake-ups of that thread never count. When the web processes
  // collect garbage varies, so the processor times are the median of three hosts.
  constexpr int kHosts = 3;
  Hosts hosts(Page::colour);
  Series ours, floor, oursInAll, floorInAll, wakeUps, wakeUpsFloor;
  for (int i = 0; i < kHosts; ++i) {
    const auto ad = hosts.kelvara("shown 30"), view = hosts.webkit("shown 30");
    ours.add(ad.at("host").median());
    floor.add(view.at("host").median());
    oursInAll.add(ad.at("host").median() + ad.at("children").median());
    floorInAll.add(view.at("host").median() + view.at("children").median());
    wakeUps.add(ad.at("wakeUps").median());
    wakeUpsFloor.add(view.at("wakeUps").median());
  }
  printRow("ad on screen for 30 s, processor time of the host", "ms", ours, floor, {.ratio = 1.1});
  printRow("ad on screen for 30 s, processor time with the web processes", "ms", oursInAll,
           floorInAll, {.ratio = 1.1});
  printRow("ad on screen, wake-ups of the host", "/s", wakeUps.median(), wakeUpsFloor.median(),
           {.ratio = 1, .plus = 1.5});

  const auto started = hosts.kelvara("idle 30"), blank = hosts.webkit("blank 30");
  // WebKit's own threads wake up too, so the floor has a view as well.
  printRow("started without an ad, wake-ups of the host, against one blank view", "/s",
           started.at("wakeUps").median(), blank.at("wakeUps").median(), {.ratio = 1, .plus = 0.5});
  printRow("started without an ad, private memory, against one blank view", "MB",
           started.at("memory").median(), blank.at("memory").median(), {.ratio = 1, .plus = 4});

  const auto after = hosts.kelvara("ads 20").at("memory").values();
  printRow("private memory after 20 ads, against after one", "MB", after.at(1), after.at(0),
           {.ratio = 1, .plus = 2});
}
