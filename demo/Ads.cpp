#include "demo/Ads.h"

#include <Kelvara/Kelvara.h>

#include <charconv>
#include <optional>

#include "sandbox/Catalogue.h"

namespace demo {
namespace {

using kva::KVABidType;

std::string_view name(KVABidType kind) {
  return kind == KVABidType::interstitial ? "interstitial" : "rewarded";
}

std::string adUnit(KVABidType kind) {
  return std::string(kind == KVABidType::interstitial ? kva::sandbox::kInterstitialAdUnit
                                                      : kva::sandbox::kRewardedAdUnit);
}

std::size_t index(KVABidType kind) { return static_cast<std::size_t>(kind); }

}  // namespace

std::string priceText(double price) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, price, std::chars_format::fixed, 2).ptr;
  return {text, end};
}

std::string describe(const kva::Error& error) {
  const std::string hint = error.hint().empty() ? "" : " " + std::string(error.hint());
  return error.localizedDescription() + hint + " (" + error.domain() + " " +
         std::to_string(error.code()) + ")";
}

void Ads::start() {
  interstitial_->setDelegate(weak_from_this());
  rewarded_->setDelegate(weak_from_this());
  journal_.add(Source::host, "start", std::string(kva::sandbox::kApplicationId));
  // Weak, because requests still running at the end complete after `Ads` is destroyed.
  kva::Kelvara::start(std::string(kva::sandbox::kApplicationId),
                      [weak = weak_from_this()](std::optional<kva::Error> error) {
                        const auto self = weak.lock();
                        if (!self) return;
                        if (error) return self->failed("startFailed", *error);
                        self->journal_.add(Source::sdk, "started",
                                           "SDK " + kva::Kelvara::sdkVersion());
                      });
}

void Ads::bid(KVABidType kind) {
  journal_.add(Source::host, "loadBid", std::string(name(kind)));
  kva::KVABidLoader::loadBid(
      adUnit(kind), kind,
      [weak = weak_from_this(), kind](Bid bid, std::optional<kva::Error> error) {
        const auto self = weak.lock();
        if (!self) return;
        if (error) return self->failed("noBid", *error);
        {
          std::scoped_lock lock(self->mutex_);
          self->bids_[index(kind)] = bid;
        }
        self->journal_.add(Source::bid, "bid",
                           "price " + priceText(bid->price()) + ", plan " + bid->planId());
      });
}

void Ads::load(KVABidType kind) {
  const Bid bid = lastBid(kind);
  if (!bid) return journal_.add(Source::host, "nothingToLoad", "bid first");
  journal_.add(Source::host, "loadAd", std::string(name(kind)) + " at " + priceText(bid->price()));
  ad(kind).loadAd(bid, bid->price());
}

void Ads::show(KVABidType kind, std::shared_ptr<kva::ViewController> host) {
  journal_.add(Source::host, "showAd", std::string(name(kind)));
  ad(kind).showAdFrom(std::move(host));
}

void Ads::lose(KVABidType kind) {
  const Bid bid = lastBid(kind);
  if (!bid) return journal_.add(Source::host, "nothingToLose", "bid first");
  const double clearingPrice = bid->price() + 0.5;
  journal_.add(Source::host, "sendBidLost", "against " + priceText(clearingPrice));
  kva::KVABidLoader::sendBidLost(bid, clearingPrice);
}

Ads::Bid Ads::lastBid(KVABidType kind) const {
  std::scoped_lock lock(mutex_);
  return bids_[index(kind)];
}

kva::KVAAd& Ads::ad(KVABidType kind) const {
  if (kind == KVABidType::interstitial) return *interstitial_;
  return *rewarded_;
}

void Ads::failed(const char* event, const kva::Error& error) {
  journal_.add(Source::ad, event, describe(error));
}

void Ads::interstitialDidReceive(kva::KVAInterstital&) { received("interstitialDidReceive"); }
void Ads::interstitialDidFailToReceive(kva::KVAInterstital&, const kva::Error& error) {
  failed("interstitialDidFailToReceive", error);
}
void Ads::interstitialDidPresent(kva::KVAInterstital&) { received("interstitialDidPresent"); }
void Ads::interstitialDidFailToPresent(kva::KVAInterstital&, const kva::Error& error) {
  failed("interstitialDidFailToPresent", error);
}
void Ads::interstitialDidClick(kva::KVAInterstital&) { received("interstitialDidClick"); }
void Ads::interstitialDidDismiss(kva::KVAInterstital&) { received("interstitialDidDismiss"); }
void Ads::rewardedDidReceive(kva::KVARewarded&) { received("rewardedDidReceive"); }
void Ads::rewardedDidFailToReceive(kva::KVARewarded&, const kva::Error& error) {
  failed("rewardedDidFailToReceive", error);
}
void Ads::rewardedDidPresent(kva::KVARewarded&) { received("rewardedDidPresent"); }
void Ads::rewardedDidFailToPresent(kva::KVARewarded&, const kva::Error& error) {
  failed("rewardedDidFailToPresent", error);
}
void Ads::rewardedDidClick(kva::KVARewarded&) { received("rewardedDidClick"); }
void Ads::rewardedDidDismiss(kva::KVARewarded&) { received("rewardedDidDismiss"); }
void Ads::rewardedDidComplete(kva::KVARewarded&) { received("rewardedDidComplete"); }

}  // namespace demo
