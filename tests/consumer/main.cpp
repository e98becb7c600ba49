// Every call of the host API, compiled and linked against the installed library alone.
//   consumer                             runs as far as a host without a server gets
//   consumer API_BASE APP_ID AD_UNIT     loads an interstitial; prints the outcome
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

// The layouts that programs are compiled with.
static_assert(sizeof(kva::gtk::Host) == sizeof(void*));
static_assert(sizeof(kva::KVABidResponse) == sizeof(void*));
static_assert(sizeof(kva::Error) == 2 * sizeof(std::string) + sizeof(std::int64_t));
static_assert(__cplusplus == 202002L, "the library changes the language of its hosts");

namespace {

void expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "consumer: %s\n", what);
  std::exit(1);
}

/// Keeps the codes of what goes wrong, in order.
struct Delegate : kva::KVAInterstitialDelegate, kva::KVARewardedDelegate {
  void note(const kva::Error& error) { codes += std::to_string(error.code()) + " "; }
  void interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error& error) override {
    note(error);
  }
  void interstitialDidFailToPresent(kva::KVAInterstital&, const kva::Error& error) override {
    note(error);
  }
  void rewardedDidFailToPresent(kva::KVARewarded&, const kva::Error& error) override {
    note(error);
  }
  std::string codes;
};

/// Prints the first outcome that ends the load of an ad, and ends the main loop.
struct Loading : kva::KVAInterstitialDelegate {
  void end(const std::string& outcome) {
    std::printf("outcome: %s\n", outcome.c_str());
    hasEnded = true;
    g_main_context_wakeup(nullptr);
  }
  void interstitialDidReceive(kva::KVAInterstital&) override { end("ready"); }
  void interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error& error) override {
    end(error.localizedDescription());
  }
  std::atomic<bool> hasEnded = false;
};

void load(const std::string& apiBase, const std::string& appId, const std::string& adUnit) {
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-consumer-load";
  std::filesystem::remove_all(folder);
  kva::gtk::Host host({.bundleId = "com.example.consumer",
                       .userDefaults = folder / "defaults.sqlite",
                       .productionAPIBase = apiBase,
                       .sandboxAPIBase = apiBase,
                       .networkPolicy = kva::gtk::NetworkPolicy::assumeReachable});
  auto* window = gtk_window_new();
  gtk_window_present(GTK_WINDOW(window));
  const auto delegate = std::make_shared<Loading>();
  const auto ad = kva::KVAInterstital::create();
  ad->setDelegate(delegate);
  kva::Kelvara::start(appId, [&](auto error) {
    if (error) return delegate->end(error->localizedDescription());
    kva::KVABidLoader::loadBid(adUnit, kva::KVABidType::interstitial, [&](auto bid, auto refusal) {
      if (!bid) return delegate->end(refusal->localizedDescription());
      ad->loadAd(bid, bid->price());
    });
  });
  while (!delegate->hasEnded) g_main_context_iteration(nullptr, TRUE);
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 4) {
    load(arguments[1], arguments[2], arguments[3]);
    return 0;
  }
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-consumer";
  kva::gtk::Host host({.bundleId = "com.example.consumer",
                       .userDefaults = folder / "defaults.sqlite",
                       .networkPolicy = kva::gtk::NetworkPolicy::assumeReachable});
  const auto viewController = host.viewController(GTK_WINDOW(gtk_window_new()));

  expect(kva::Kelvara::sdkVersion() == "1.2.0", "the version is not 1.2.0");
  kva::Kelvara::setUserId("somebody");
  kva::Kelvara::setUserConsent(false);
  kva::Kelvara::setUserChild(false);
  kva::Kelvara::setSubjectToGDPR(true);
  kva::Kelvara::setSubjectToCCPA(false);
  const auto delegate = std::make_shared<Delegate>();
  kva::Kelvara::start("not a UUID", [&](auto error) { delegate->note(error.value()); });
  expect(!kva::Kelvara::isInitialized(), "initialised without a server");

  auto bid = std::make_shared<kva::KVABidResponse>("plan", "bid", 1.5);
  expect(bid->price() == 1.5, "the price is not the bid's");
  kva::KVABidLoader::sendBidLost(bid, 2.0);
  kva::KVABidLoader::loadBid("unit", kva::KVABidType::rewarded,
                             [&](auto, auto error) { delegate->note(error.value()); });
  auto interstitial = kva::KVAInterstital::create();
  interstitial->setDelegate(delegate);
  interstitial->showAdFrom(viewController);
  interstitial->loadAd(bid, 1.0);
  expect(!interstitial->isLoaded() && interstitial->isLoading(), "the load left another state");
  auto rewarded = kva::KVARewarded::create();
  rewarded->setDelegate(delegate);
  rewarded->showAdFrom(viewController);
  expect(delegate->codes == "14 2 0 2 0 ", "not every call was refused with its code");
  std::filesystem::remove_all(folder);
  std::puts("consumer: every call of the host API answered as documented");
}
