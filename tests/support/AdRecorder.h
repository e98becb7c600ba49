#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/base/Guarded.h>

namespace kva::test {

/// A delegate of both kinds of ad. Records its calls, such as "didReceive" and
/// "didFailToPresent 0 Ad isn't ready.".
/// Thread-safe.
class AdRecorder : public KVAInterstitialDelegate, public KVARewardedDelegate {
 public:
  std::vector<std::string> events() const { return events_.get(); }
  /// Counts the events that begin with `name`.
  int count(std::string_view name) const {
    return static_cast<int>(std::ranges::count_if(
        events(), [&](const std::string& event) { return event.starts_with(name); }));
  }
  /// Called after each event, on its thread. Set before the first event.
  std::function<void()> onEvent;

  using I = KVAInterstital;
  using R = KVARewarded;
  void interstitialDidReceive(I&) override { add("didReceive"); }
  void interstitialDidFailToReceive(I&, const Error& e) override { add("didFailToReceive", e); }
  void interstitialDidPresent(I&) override { add("didPresent"); }
  void interstitialDidFailToPresent(I&, const Error& e) override { add("didFailToPresent", e); }
  void interstitialDidClick(I&) override { add("didClick"); }
  void interstitialDidDismiss(I&) override { add("didDismiss"); }
  void rewardedDidReceive(R&) override { add("didReceive"); }
  void rewardedDidFailToReceive(R&, const Error& e) override { add("didFailToReceive", e); }
  void rewardedDidPresent(R&) override { add("didPresent"); }
  void rewardedDidFailToPresent(R&, const Error& e) override { add("didFailToPresent", e); }
  void rewardedDidClick(R&) override { add("didClick"); }
  void rewardedDidDismiss(R&) override { add("didDismiss"); }
  void rewardedDidComplete(R&) override { add("didComplete"); }

 private:
  void add(const std::string& event) {
    events_.with([&](auto& events) { events.push_back(event); });
    if (onEvent) onEvent();
  }
  void add(const std::string& event, const Error& error) {
    add(event + " " + std::to_string(error.code()) + " " + error.localizedDescription());
  }

  Guarded<std::vector<std::string>> events_;
};

}  // namespace kva::test
