#pragma once

#include <memory>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>
#include <Kelvara/KVABidLoader.h>

namespace kva {

class FullscreenAd;
class ViewController;

/// The base of the full-screen ads. Each load and each show calls the delegate once; a superseded
/// load may produce no call. An ad object can load again, with a new bid, at any time. This does
/// not affect an ad on screen, which stays until it is dismissed. A delegate must not throw. While
/// the `gtk::Host` is destroyed, it must not wait for the main thread.
class KVA_EXPORT KVAAd {
 public:
  virtual ~KVAAd();
  KVAAd(const KVAAd&) = delete;
  KVAAd& operator=(const KVAAd&) = delete;

  /// Loads the ad of a bid that won at `clearingPrice` (finite). Any thread. In an initialized SDK,
  /// a null bid is refused with `KVAErrorCodes::invalidBidResponse`. The delegate is called
  ///   - for a refusal: before `loadAd` returns;
  ///   - for any other failure: on the network session's thread or on the main thread;
  ///   - for success: on the main thread.
  void loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
  /// Covers the window of `host` with the ad. If the window is hidden or minimised, the ad waits
  /// until it is on screen. Any thread; off the main thread, the call is dispatched to it. The
  /// delegate is called on the main thread. If the window is destroyed before the ad is on screen,
  /// the ad fails to present with `KVAErrorCodes::adAlreadyShown`, "No window.". An ad on screen
  /// stays until the user closes it or the window is destroyed, which counts as dismissed.
  /// Releasing this object does not remove it.
  void showAdFrom(std::shared_ptr<ViewController> host);

  /// True when the ad is ready and has not been shown. Any thread.
  bool isLoaded() const;
  /// True from `loadAd` until the creative is ready or has failed. If the server delivers no ad, it
  /// stays true until the next load. Any thread.
  bool isLoading() const;

 protected:
  explicit KVAAd(std::shared_ptr<FullscreenAd> fullscreenAd);
  FullscreenAd& fullscreenAd() const { return *fullscreenAd_; }

 private:
  const std::shared_ptr<FullscreenAd> fullscreenAd_;
};

}  // namespace kva
