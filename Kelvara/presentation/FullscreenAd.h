#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <Kelvara/Error.h>
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/AdType.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/DispatchQueue.h>
#include <Kelvara/presentation/FullscreenAdVC.h>

namespace kva {

/// The events that the host's delegate receives.
enum class AdEvent {
  didReceive,
  didFailToReceive,  ///< with the error
  didPresent,
  didFailToPresent,  ///< with the error
  didClick,
  didComplete,  ///< rewarded ads only
  didDismiss,
};

/// Implements both public ad objects: loads the ad of a bid, then shows it, any number of times.
/// Any thread, except for the controller's calls, which arrive on the main thread. May be released
/// on any thread.
class FullscreenAd : public AdLoaderDelegate,
                     public FullscreenAdVCDelegate,
                     public std::enable_shared_from_this<FullscreenAd> {
 public:
  explicit FullscreenAd(AdType adType);
  ~FullscreenAd() override;

  /// Calls `passOn` for each event of `ad` while both `delegate` and `ad` live, on the thread where
  /// the event occurs. Only the two failures carry an error.
  template <class Delegate, class HostsAd>
  void setDelegate(std::weak_ptr<Delegate> delegate, std::weak_ptr<HostsAd> ad,
                   void (*passOn)(Delegate&, HostsAd&, AdEvent, const std::optional<Error>&)) {
    listener_.set([=](AdEvent event, const std::optional<Error>& error) {
      const auto listening = delegate.lock();
      const auto hostsAd = ad.lock();
      if (listening && hostsAd) passOn(*listening, *hostsAd, event, error);
    });
  }
  /// Starts a new load in any status. When its ad arrives, it replaces a creative that is still
  /// being prepared, without an event for that one. A creative on screen stays, and its dismissal
  /// does not affect the new load.
  void loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
  /// Called on another thread, it runs later on the main thread.
  void showAdFrom(std::shared_ptr<ViewController> host);
  bool isLoaded() const;
  bool isLoading() const;

  void adLoaderDidReceiveAd(AdLoader&) override;
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override;

  void fullscreenAdReady(FullscreenAdVC&) override;
  void fullscreenAdFailed(FullscreenAdVC&, const Error& error) override;
  void fullscreenAdClicked(FullscreenAdVC&) override;
  void fullscreenAdRewardEarned(FullscreenAdVC&) override;
  void fullscreenAdDismissed(FullscreenAdVC&) override;

 private:
  using Listener = std::function<void(AdEvent, const std::optional<Error>&)>;
  enum class AdStatus {
    idle,     ///< new, or the last one failed or was dismissed
    loading,  ///< also after a failed bid load, until the next load
    loaded,
    willShow,
    shown,
  };
  struct State {
    AdStatus adStatus = AdStatus::idle;
    std::shared_ptr<KVABidResponse> bidResponse;
    std::shared_ptr<AdLoader> adLoader;
    std::shared_ptr<FullscreenAdVC> fullscreenVC;
  };

  /// The shown ad. Kept apart from `State`, which a later load changes.
  struct Show {
    std::weak_ptr<FullscreenAdVC> controller;
    std::shared_ptr<KVABidResponse> bidResponse;
  };

  void setupFullscreenVC(Ad ad);
  void show(ViewController& host);
  void didShow(const Show& show, const Result<bool>& result);
  void setStatus(AdStatus adStatus);
  /// Sets the status of the show by `controller`. Does nothing if a later load has begun.
  void setStatusOfShow(const FullscreenAdVC* controller, AdStatus adStatus);
  bool hasStatus(AdStatus adStatus) const;
  void notify(AdEvent event, const std::optional<Error>& error = std::nullopt);

  const AdType adType_;
  const std::shared_ptr<MainQueue> mainQueue_;
  Guarded<Listener> listener_;
  Guarded<State> state_;
};

}  // namespace kva
