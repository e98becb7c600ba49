// How long the SDK holds the host's main thread.
#include <iomanip>
#include <iostream>

#include <gmock/gmock.h>

#include <Kelvara/Kelvara.h>

#include "hostile/MainThreadWatchdog.h"
#include "show/ShowTest.h"

namespace kva::show {
namespace {

constexpr double kLongestStay = 8;    // milliseconds of processor time
constexpr double kLongestWait = 100;  // milliseconds, on a machine that others load

class MainThread : public ShowTest {
 protected:
  // Before there is a host, so that it sees all of it.
  MainThreadWatchdog watchdog;
};

TEST_F(MainThread, IsNeverHeldForLong) {
  server.setScenario(
      "/bid/load",
      {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea.adur", .value = "1"});
  watchdog.time("Kelvara::start",
                [] { Kelvara::start(std::string(sandbox::kApplicationId), [](auto) {}); });
  ASSERT_TRUE(spinUntil([] { return Kelvara::isInitialized(); }));
  int closed = 0;
  for (const auto adUnit : {sandbox::kInterstitialAdUnit, sandbox::kRewardedAdUnit}) {
    const bool isVideo = adUnit == sandbox::kRewardedAdUnit;
    std::shared_ptr<KVABidResponse> won;
    std::mutex mutex;
    watchdog.time("loadBid", [&] {
      KVABidLoader::loadBid(std::string(adUnit),
                            isVideo ? KVABidType::rewarded : KVABidType::interstitial,
                            [&](auto response, auto) {
                              std::scoped_lock lock(mutex);
                              won = response;
                            });
    });
    ASSERT_TRUE(spinUntil([&] {
      std::scoped_lock lock(mutex);
      return won != nullptr;
    }));
    auto ad = KVARewarded::create();
    ad->setDelegate(recorder);
    watchdog.time("loadAd", [&] { ad->loadAd(won, won->price()); });
    ASSERT_TRUE(heard("didReceive", closed + 1));
    watchdog.time("showAdFrom", [&] { ad->showAdFrom(viewController); });
    ASSERT_TRUE(heard("didPresent", closed + 1));
    spinFor(2.5);  // polls and the countdown
    clickPage();
    if (isVideo) clickTopLeading();  // sound
    ASSERT_TRUE(isVideo || heard("didClick", closed + 1));
    spinFor(0.5);
    if (isVideo) clickTopTrailing();  // skip
    spinFor(0.5);
    clickTopTrailing();
    ASSERT_TRUE(heard("didDismiss", ++closed));
  }
  spinFor(2);  // the warm view's making, an upload

  for (const auto& [what, figures] : watchdog.figures()) {
    std::cout << std::setw(28) << what << std::setw(6) << figures.count << std::fixed
              << std::setprecision(2) << std::setw(9) << figures.longest << std::setw(9)
              << figures.longestWaiting << "\n";
    if (what == MainThreadWatchdog::kMakingAWebView) continue;
    EXPECT_LT(figures.longest, kLongestStay) << what;
    EXPECT_LT(figures.longestWaiting, kLongestWait) << what;
  }
}

}  // namespace
}  // namespace kva::show
