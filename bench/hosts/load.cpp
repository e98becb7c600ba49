// From loadAd to interstitialDidReceive, beside the load of the same page in a bare web view.
#include "bench/hosts/Hosts.h"

namespace {

using kva::bench::Series;

/// Adds all samples but the first.
void addLater(Series& all, const Series& samples) {
  for (std::size_t i = 1; i < samples.values().size(); ++i) all.add(samples.values()[i]);
}

}  // namespace

int main() {
  using namespace kva::bench;
  constexpr int kFirstAds = 40, kColdViews = 10, kBursts = 3;
  Hosts hosts(Page::imageAd);
  hosts.kelvara("load 1");  // the template is stored

  Series first, cold, warm;
  for (int i = 0; i < kFirstAds; ++i) {
    first.add(hosts.kelvara("load 1").at("load").median());
    warm.add(hosts.webkit("load-warm").at("load").median());
    if (i < kColdViews) cold.add(hosts.webkit("load 1").at("load").median());
  }
  printRow("first ad, loadAd to DidReceive, against a cold view", "ms", first.median(),
           cold.median(), {.ratio = 0.15});
  printRow("first ad, loadAd to DidReceive, against a warm view", "ms", first, warm,
           {.ratio = 1.2});

  Series spaced, spacedFloor, burst, burstFloor;
  addLater(spaced, hosts.kelvara("load 10 2.5").at("load"));
  addLater(spacedFloor, hosts.webkit("load 10 2.5").at("load"));
  for (int i = 0; i < kBursts; ++i) {
    addLater(burst, hosts.kelvara("load 6").at("load"));
    addLater(burstFloor, hosts.webkit("load 6").at("load"));
  }
  printRow("later ads, 2.5 s apart", "ms", spaced.median(), spacedFloor.median(), {.ratio = 0.2});
  printRow("later ads, back to back", "ms", burst.median(), burstFloor.median(), {.ratio = 0.2});
}
