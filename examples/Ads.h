#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

// What every toolkit's example shares: both formats, from a kelvara-sandbox on this machine.
namespace example {

using Over = std::shared_ptr<kva::ViewController>;

inline kva::gtk::HostOptions options() {
  return {.bundleId = "com.example.hosts",
          .productionAPIBase = "http://127.0.0.1:8000/api/v1",
          .networkPolicy = kva::gtk::NetworkPolicy::assumeReachable};
}

/// Requests, loads and shows ads. Reports what happens through `say`, on any thread.
class Ads : public kva::KVAInterstitialDelegate,
            public kva::KVARewardedDelegate,
            public std::enable_shared_from_this<Ads> {
 public:
  explicit Ads(std::function<void(std::string)> say) : say_(std::move(say)) {}

  void start() {
    kva::Kelvara::start("5e0f6c1a-8d0b-4a52-9b3e-6f2f3c9d7a10", [this](auto error) {
      say_(error ? error->localizedDescription() : "Ready");
    });
  }
  void showInterstitial(const Over& over) {
    request(interstitial_ = kva::KVAInterstital::create(), kva::KVABidType::interstitial,
            "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c201", over);
  }
  void showRewarded(const Over& over) {
    request(rewarded_ = kva::KVARewarded::create(), kva::KVABidType::rewarded,
            "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c202", over);
  }

 private:
  template <class Ad>
  void request(const std::shared_ptr<Ad>& ad, kva::KVABidType type, const char* adUnit,
               const Over& over) {
    over_ = over;
    ad->setDelegate(weak_from_this());
    kva::KVABidLoader::loadBid(adUnit, type, [this, ad](auto bid, auto error) {
      if (error) return say_(error->localizedDescription());
      ad->loadAd(bid, bid->price());
    });
  }

  void interstitialDidReceive(kva::KVAInterstital& ad) override { ad.showAdFrom(over_); }
  void interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error& error) override {
    say_(error.localizedDescription());
  }
  void interstitialDidFailToPresent(kva::KVAInterstital&, const kva::Error& error) override {
    say_(error.localizedDescription());
  }
  void interstitialDidPresent(kva::KVAInterstital&) override { say_("An interstitial"); }
  void interstitialDidDismiss(kva::KVAInterstital&) override { say_("Welcome back"); }

  void rewardedDidReceive(kva::KVARewarded& ad) override { ad.showAdFrom(over_); }
  void rewardedDidFailToReceive(kva::KVARewarded&, const kva::Error& error) override {
    say_(error.localizedDescription());
  }
  void rewardedDidFailToPresent(kva::KVARewarded&, const kva::Error& error) override {
    say_(error.localizedDescription());
  }
  void rewardedDidPresent(kva::KVARewarded&) override { say_("A rewarded ad"); }
  void rewardedDidComplete(kva::KVARewarded&) override { say_("Ten coins earned"); }
  void rewardedDidDismiss(kva::KVARewarded&) override { say_("Welcome back"); }

  const std::function<void(std::string)> say_;
  std::shared_ptr<kva::KVAInterstital> interstitial_;
  std::shared_ptr<kva::KVARewarded> rewarded_;
  Over over_;
};

}  // namespace example
