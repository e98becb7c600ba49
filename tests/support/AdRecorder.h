#pragma once

#include <algorithm>

#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/base/Guarded.h>

namespace kva::test {

/// "0 Ad isn't ready."
inline std::string describe(const Error& error) {
  return std::to_string(error.code()) + " " + error.localizedDescription();
}

/// A delegate of both kinds of ad with one method for all calls.
class AdListener : public KVAInterstitialDelegate, public KVARewardedDelegate {
 protected:
  /// `event` is the call's name without the kind of ad, such as "didReceive".
  virtual void happened(const std::string& event, const std::optional<Error>& error) = 0;

 private:
  using I = KVAInterstital;
  using R = KVARewarded;
  using E = const Error&;
  void interstitialDidReceive(I&) override { happened("didReceive", {}); }
  void interstitialDidFailToReceive(I&, E e) override { happened("didFailToReceive", e); }
  void interstitialDidPresent(I&) override { happened("didPresent", {}); }
  void interstitialDidFailToPresent(I&, E e) override { happened("didFailToPresent", e); }
  void interstitialDidClick(I&) override { happened("didClick", {}); }
  void interstitialDidDismiss(I&) override { happened("didDismiss", {}); }
  void rewardedDidReceive(R&) override { happened("didReceive", {}); }
  void rewardedDidFailToReceive(R&, E e) override { happened("didFailToReceive", e); }
  void rewardedDidPresent(R&) override { happened("didPresent", {}); }
  void rewardedDidFailToPresent(R&, E e) override { happened("didFailToPresent", e); }
  void rewardedDidClick(R&) override { happened("didClick", {}); }
  void rewardedDidDismiss(R&) override { happened("didDismiss", {}); }
  void rewardedDidComplete(R&) override { happened("didComplete", {}); }
};

/// An ad that notifies `listener`.
inline std::shared_ptr<KVAAd> makeAd(KVABidType kind, const std::shared_ptr<AdListener>& listener) {
  const auto notifying = [&](const auto& ad) -> std::shared_ptr<KVAAd> {
    ad->setDelegate(listener);
    return ad;
  };
  return kind == KVABidType::rewarded ? notifying(KVARewarded::create())
                                      : notifying(KVAInterstital::create());
}

/// Records the calls, such as "didReceive" and "didFailToPresent 0 Ad isn't ready.".
/// Thread-safe.
class AdRecorder : public AdListener {
 public:
  std::vector<std::string> events() const { return events_.get(); }
  /// Counts the events that begin with `name`.
  int count(std::string_view name) const {
    return static_cast<int>(std::ranges::count_if(
        events(), [&](const std::string& event) { return event.starts_with(name); }));
  }
  /// Called after each event, on its thread. Set before the first event.
  std::function<void()> onEvent;

 private:
  void happened(const std::string& event, const std::optional<Error>& error) override {
    events_.with(
        [&](auto& events) { events.push_back(error ? event + " " + describe(*error) : event); });
    if (onEvent) onEvent();
  }

  Guarded<std::vector<std::string>> events_;
};

}  // namespace kva::test
