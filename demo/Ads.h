#pragma once

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "demo/Journal.h"

namespace kva {
class ViewController;
}

namespace demo {

/// The demo's bid and ad object of each kind, and their delegate. Created after the `Host`,
/// destroyed before it. Thread-safe, except `show`: main thread only.
class Ads : public kva::KVAInterstitialDelegate,
            public kva::KVARewardedDelegate,
            public std::enable_shared_from_this<Ads> {
 public:
  using Bid = std::shared_ptr<kva::KVABidResponse>;

  explicit Ads(Journal& journal) : journal_(journal) {}

  void start();
  void bid(kva::KVABidType kind);
  /// Loads the ad of the last bid, with the bid's price as the clearing price.
  void load(kva::KVABidType kind);
  void show(kva::KVABidType kind, std::shared_ptr<kva::ViewController> host);
  /// Reports the last bid as lost, with a clearing price 0.5 above its own.
  void lose(kva::KVABidType kind);

  Bid lastBid(kva::KVABidType kind) const;

  void interstitialDidReceive(kva::KVAInterstital&) override;
  void interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error&) override;
  void interstitialDidPresent(kva::KVAInterstital&) override;
  void interstitialDidFailToPresent(kva::KVAInterstital&, const kva::Error&) override;
  void interstitialDidClick(kva::KVAInterstital&) override;
  void interstitialDidDismiss(kva::KVAInterstital&) override;
  void rewardedDidReceive(kva::KVARewarded&) override;
  void rewardedDidFailToReceive(kva::KVARewarded&, const kva::Error&) override;
  void rewardedDidPresent(kva::KVARewarded&) override;
  void rewardedDidFailToPresent(kva::KVARewarded&, const kva::Error&) override;
  void rewardedDidClick(kva::KVARewarded&) override;
  void rewardedDidDismiss(kva::KVARewarded&) override;
  void rewardedDidComplete(kva::KVARewarded&) override;

 private:
  kva::KVAAd& ad(kva::KVABidType kind) const;
  void received(const char* name) { journal_.add(Source::ad, name); }
  void failed(const char* name, const kva::Error& error);

  Journal& journal_;
  mutable std::mutex mutex_;
  std::array<Bid, 2> bids_;  ///< by kind
  const std::shared_ptr<kva::KVAInterstital> interstitial_ = kva::KVAInterstital::create();
  const std::shared_ptr<kva::KVARewarded> rewarded_ = kva::KVARewarded::create();
};

/// "2.50", whatever the user's locale.
std::string priceText(double price);
std::string describe(const kva::Error& error);

}  // namespace demo
