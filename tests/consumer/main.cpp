// A host that is compiled and linked against the installed library alone.
//   consumer                             makes the SDK's host, which logs missing resources
//   consumer API_BASE APP_ID AD_UNIT     loads an interstitial; prints the outcome
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <thread>

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

/// Opens a module again and again, as GTK does for its input methods and the like.
void openModules(const std::atomic<bool>& hasEnded) {
  // GTK brings GModule in; a host does not link it.
  const auto open =
      reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_DEFAULT, "g_module_open"));
  const auto close = reinterpret_cast<int (*)(void*)>(dlsym(RTLD_DEFAULT, "g_module_close"));
  while (!hasEnded) close(open("libgtk-4.so.1", 0));
}

void load(const std::string& appId, const std::string& adUnit) {
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
  std::thread modules([&] { openModules(delegate->hasEnded); });
  while (!delegate->hasEnded) g_main_context_iteration(nullptr, TRUE);
  modules.join();
}

}  // namespace

int main(int count, char** arguments) {
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-consumer";
  std::filesystem::remove_all(folder);
  const std::string apiBase = count == 4 ? arguments[1] : "";
  kva::gtk::Host host({.bundleId = "com.example.consumer",
                       .userDefaults = folder / "defaults.sqlite",
                       .productionAPIBase = apiBase,
                       .sandboxAPIBase = apiBase,
                       .networkPolicy = kva::gtk::NetworkPolicy::assumeReachable});
  if (count == 4) load(arguments[2], arguments[3]);
  std::printf("consumer: version %s\n", kva::Kelvara::sdkVersion().c_str());
}
