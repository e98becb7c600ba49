// Every call of the host API, compiled and linked against the installed library alone, and run as
// far as a host without a server gets.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>
#include <gtk/gtk.h>

namespace {

void expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "consumer: %s\n", what);
  std::exit(1);
}

struct InterstitialDelegate : kva::KVAInterstitialDelegate {
  void interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error& error) override {
    received = error;
  }
  void interstitialDidFailToPresent(kva::KVAInterstital&, const kva::Error& error) override {
    presented = error;
  }
  std::optional<kva::Error> received, presented;
};

struct RewardedDelegate : kva::KVARewardedDelegate {
  void rewardedDidFailToPresent(kva::KVARewarded&, const kva::Error& error) override {
    presented = error;
  }
  std::optional<kva::Error> presented;
};

}  // namespace

int main() {
  gtk_init();
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-consumer";
  kva::gtk::HostOptions options;
  options.bundleId = "com.example.consumer";
  options.appVersion = "1.0";
  options.userDefaults = folder / "defaults.sqlite";
  options.productionAPIBase = "http://127.0.0.1:1/api/v1";  // nobody listens there
  options.sandboxAPIBase = "http://127.0.0.1:1/api/v1";
  options.networkPolicy = kva::gtk::NetworkPolicy::assumeReachable;
  kva::gtk::Host host(options);
  auto* window = GTK_WINDOW(gtk_window_new());
  const auto viewController = host.viewController(window);

  expect(kva::Kelvara::sdkVersion() == "1.2.0", "the version is not 1.2.0");
  kva::Kelvara::setUserId("somebody");
  kva::Kelvara::setUserConsent(false);
  kva::Kelvara::setUserChild(false);
  kva::Kelvara::setSubjectToGDPR(true);
  kva::Kelvara::setSubjectToCCPA(false);

  std::optional<kva::Error> refused;
  kva::Kelvara::start("not a UUID", [&](std::optional<kva::Error> error) { refused = error; });
  expect(refused && refused->code() == 14, "an invalid application id was not refused");
  expect(!kva::Kelvara::isInitialized(), "initialised without a server");

  std::optional<kva::Error> noBid;
  kva::KVABidLoader::loadBid(
      "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", kva::KVABidType::rewarded,
      [&](std::shared_ptr<kva::KVABidResponse>, std::optional<kva::Error> error) { noBid = error; });
  expect(noBid && noBid->code() == 2, "a bid before start-up was not refused");

  auto bid = std::make_shared<kva::KVABidResponse>("plan", "bid", 1.5);
  expect(bid->price() == 1.5, "the price is not the bid's");
  kva::KVABidLoader::sendBidLost(bid, 2.0);

  auto interstitial = kva::KVAInterstital::create();
  auto interstitialDelegate = std::make_shared<InterstitialDelegate>();
  interstitial->setDelegate(interstitialDelegate);
  interstitial->showAdFrom(viewController);
  expect(interstitialDelegate->presented && interstitialDelegate->presented->code() == 0,
         "an ad that was not loaded was shown");
  interstitial->loadAd(bid, 1.0);
  expect(interstitialDelegate->received && interstitialDelegate->received->code() == 2,
         "an ad was loaded before start-up");
  expect(!interstitial->isLoaded() && interstitial->isLoading(), "the load left another state");

  auto rewarded = kva::KVARewarded::create();
  auto rewardedDelegate = std::make_shared<RewardedDelegate>();
  rewarded->setDelegate(rewardedDelegate);
  rewarded->showAdFrom(viewController);
  expect(rewardedDelegate->presented && rewardedDelegate->presented->code() == 0,
         "a rewarded ad that was not loaded was shown");

  expect(std::filesystem::exists(std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                                 "KelvaraResources.bundle" / "mraid.js"),
         "the resources were not embedded");
  std::filesystem::remove_all(folder);
  std::puts("consumer: every call of the host API answered as documented");
}
