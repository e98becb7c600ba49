#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <Kelvara/Error.h>
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/AdType.h>
#include <Kelvara/core/Guarded.h>
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
/// host likes. Any thread, but for `showAdFrom` and the controller's calls, which are the main
/// thread's. May be let go on any thread.
class FullscreenAd : public AdLoaderDelegate,
                     public FullscreenAdVCDelegate,
                     public std::enable_shared_from_this<FullscreenAd> {
 public:
  /// Called on the thread on which the event happens; the error only with the two failures.
  using Listener = std::function<void(AdEvent, const std::optional<Error>&)>;

  explicit FullscreenAd(AdType adType);
  ~FullscreenAd() override;

  void setListener(Listener listener);
  /// Begins anew whatever has been before. Two loads at once have two outcomes; only the later
  /// one's ad can be shown.
  void loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
  void showAdFrom(ViewController& host);
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

  void setupFullscreenVC(Ad ad);
  void didShow(const Result<bool>& result);
  void setStatus(AdStatus adStatus);
  bool hasStatus(AdStatus adStatus) const;
  void tell(AdEvent event, const std::optional<Error>& error = std::nullopt);

  const AdType adType_;
  const std::shared_ptr<MainQueue> mainQueue_;
  Guarded<Listener> listener_;
  Guarded<State> state_;
};

}  // namespace kva
