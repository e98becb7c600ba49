// A host, compiled and linked against the installed library alone.
//   consumer                             makes what needs no server
//   consumer API_BASE APP_ID AD_UNIT     loads an interstitial; prints the outcome
#include <atomic>
#include <cstdio>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

// The layouts that programs are compiled with.
static_assert(sizeof(kva::gtk::Host) == sizeof(void*));
static_assert(sizeof(kva::KVABidResponse) == sizeof(void*));
static_assert(sizeof(kva::Error) == 2 * sizeof(std::string) + sizeof(std::int64_t));
static_assert(__cplusplus == 202002L, "the library changes the language of its hosts");

namespace {

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

}  // namespace

int main(int count, char** arguments) {
  const bool loads = count == 4;
  const std::string apiBase = loads ? arguments[1] : "";
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-consumer";
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
  if (!loads) return 0;
  kva::Kelvara::start(arguments[2], [&](auto error) {
    if (error) return delegate->end(error->localizedDescription());
    kva::KVABidLoader::loadBid(arguments[3], kva::KVABidType::interstitial,
                               [&](auto bid, auto refusal) {
                                 if (!bid) return delegate->end(refusal->localizedDescription());
                                 ad->loadAd(bid, bid->price());
                               });
  });
  while (!delegate->hasEnded) g_main_context_iteration(nullptr, TRUE);
}
