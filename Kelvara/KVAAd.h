#pragma once

#include <memory>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>
#include <Kelvara/KVABidLoader.h>

namespace kva {

class FullscreenAd;
class ViewController;

/// What the full-screen ads have in common. Each load and each show produces one call of the
/// delegate; a superseded load may produce none. An ad object can be loaded again, with a new bid,
/// at any time: an ad that is on screen stays there until it is dismissed. Delegates must not
/// throw, and not wait for the main thread while the `gtk::Host` is destroyed.
class KVA_EXPORT KVAAd {
 public:
  virtual ~KVAAd();
  KVAAd(const KVAAd&) = delete;
  KVAAd& operator=(const KVAAd&) = delete;

  /// Loads the ad of the bid that has won at `clearingPrice` (finite). A null bid is refused with
  /// `KVAErrorCodes::invalidBidResponse`, once the SDK is initialized. Any thread. The delegate is
  /// called for a refusal before this returns, for another failure on the network session's thread
  /// or on the main thread, for success on the main thread.
  void loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
  /// Covers the window that `host` stands for with the ad, as soon as that window is on screen: not
  /// while it is hidden or minimised. Any thread; called off the main thread, it runs there later.
  /// The delegate is called on the main thread. When the window is destroyed first, the ad fails
  /// to present with `adAlreadyShown`, "No window.". An ad that is on screen stays there until the
  /// user closes it or the window is destroyed (which counts as dismissed), also when this object
  /// is released.
  void showAdFrom(std::shared_ptr<ViewController> host);

  /// Ready to be shown, and not yet shown. Any thread.
  bool isLoaded() const;
  /// From `loadAd` until the creative is ready or has failed; also after the ad could not be had
  /// from the server, until the next load. Any thread.
  bool isLoading() const;

 protected:
  explicit KVAAd(std::shared_ptr<FullscreenAd> fullscreenAd);
  FullscreenAd& fullscreenAd() const { return *fullscreenAd_; }

 private:
  const std::shared_ptr<FullscreenAd> fullscreenAd_;
};

}  // namespace kva
