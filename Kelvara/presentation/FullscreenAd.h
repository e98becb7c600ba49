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

/// What the host is told of its ad.
enum class AdEvent {
  didReceive,
  didFailToReceive,  ///< with the error
  didPresent,
  didFailToPresent,  ///< with the error
  didClick,
  didComplete,  ///< rewarded ads only
  didDismiss,
};

/// What stands behind both public ad objects: loads the ad of a bid, then shows it, as often as the
/// host likes. Any thread, but for the controller's calls, which are made on the main thread. May
/// be released on any thread.
class FullscreenAd : public AdLoaderDelegate,
                     public FullscreenAdVCDelegate,
                     public std::enable_shared_from_this<FullscreenAd> {
 public:
  explicit FullscreenAd(AdType adType);
  ~FullscreenAd() override;

  /// From now on `delegate` is told of the host's `ad`, by `passOn`, for as long as both live: on
  /// the thread on which the event happens, and with an error for the two failures only.
  template <class Delegate, class HostsAd>
  void setDelegate(std::weak_ptr<Delegate> delegate, std::weak_ptr<HostsAd> ad,
                   void (*passOn)(Delegate&, HostsAd&, AdEvent, const std::optional<Error>&)) {
    listener_.set([=](AdEvent event, const std::optional<Error>& error) {
      const auto listening = delegate.lock();
      const auto told = ad.lock();
      if (listening && told) passOn(*listening, *told, event, error);
    });
  }
  /// Begins anew whatever has been before. A creative that is still being prepared when the ad of
  /// a later load arrives gives way to it unheard. One on screen stays there, and its end leaves
  /// the later load alone.
  void loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
  /// Called off the main thread, it runs there later.
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
    loading,  ///< also after the loader has failed, until the next load
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

  /// What is shown: a load in the meantime changes the state.
  struct Show {
    std::weak_ptr<FullscreenAdVC> controller;
    std::shared_ptr<KVABidResponse> bidResponse;
  };

  void setupFullscreenVC(Ad ad);
  void show(ViewController& host);
  void didShow(const Show& show, const Result<bool>& result);
  void setStatus(AdStatus adStatus);
  /// Unless a later load has begun, whose status it is then.
  void setStatusOfShow(const FullscreenAdVC* controller, AdStatus adStatus);
  bool hasStatus(AdStatus adStatus) const;
  void tell(AdEvent event, const std::optional<Error>& error = std::nullopt);

  const AdType adType_;
  const std::shared_ptr<MainQueue> mainQueue_;
  Guarded<Listener> listener_;
  Guarded<State> state_;
};

}  // namespace kva
