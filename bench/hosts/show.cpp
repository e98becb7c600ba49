// From showAdFrom to the page's pixels on the screen, and the longest gaps of the main loop, beside
// a bare web view that is moved into the window.
#include "bench/hosts/Hosts.h"

int main() {
  using namespace kva::bench;
  constexpr int kShows = 16, kGaps = 8;
  // The length of the fade, which the final colour includes, and the time until it starts.
  constexpr double kFade = 200, kFirstPixel = 20;
  Hosts hosts(Page::colour);
  Series first, firstFloor, final, finalFloor, darkest;
  for (int i = 0; i < kShows; ++i) {
    const auto ad = hosts.kelvara("show"), view = hosts.webkit("show");
    first.add(ad.at("firstPixel").median());
    final.add(ad.at("finalColour").median());
    darkest.add(ad.at("darkest").median());
    firstFloor.add(view.at("firstPixel").median());
    finalFloor.add(view.at("finalColour").median());
  }
  printRow("showAdFrom to the page's first pixel", "ms", first.median(), firstFloor.median(),
           {.plus = kFirstPixel});
  printRow("showAdFrom to the page's first pixel, against a moved view", "ms", first, firstFloor,
           {.ratio = 0.2});
  printRow("showAdFrom to the page's final colour, with the fade", "ms", final.median(),
           finalFloor.median(), {.plus = kFade + kFirstPixel});
  printRow("darkest moment of the fade, of 255 levels", "levels", darkest.at(1), std::nullopt,
           {.plus = 2});

  Series show, showFloor, dismissal, dismissalFloor;
  for (int i = 0; i < kGaps; ++i) {
    const auto ad = hosts.kelvara("gaps"), view = hosts.webkit("gaps");
    show.add(ad.at("gapAtShow").median());
    showFloor.add(view.at("gapAtShow").median());
    dismissal.add(ad.at("gapAtDismissal").median());
    dismissalFloor.add(view.at("gapAtDismissal").median());
  }
  printRow("longest gap of the main loop at show", "ms", show, showFloor, {.ratio = 1.1});
  printRow("longest gap of the main loop at dismissal", "ms", dismissal, dismissalFloor,
           {.ratio = 1.1});
}
