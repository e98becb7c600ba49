#pragma once

#include <functional>
#include <memory>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/platform/View.h>
#include <Kelvara/presentation/AdView.h>
#include <Kelvara/presentation/MRController.h>
#include <Kelvara/reporting/BidReport.h>

namespace kva {

class FullscreenAdVC;

/// Hears what becomes of a full-screen ad. Main thread.
class FullscreenAdVCDelegate {
 public:
  virtual ~FullscreenAdVCDelegate() = default;
  virtual void fullscreenAdReady(FullscreenAdVC&) = 0;
  virtual void fullscreenAdFailed(FullscreenAdVC&, const Error& error) = 0;
  virtual void fullscreenAdClicked(FullscreenAdVC&) = 0;       ///< at most once
  virtual void fullscreenAdRewardEarned(FullscreenAdVC&) = 0;  ///< at most once
  virtual void fullscreenAdDismissed(FullscreenAdVC&) = 0;     ///< at most once, the last call
};

/// Shows one ad full screen and reports what happens to it. On screen it lives until it is
/// dismissed, whoever else lets go of it: the user can always close. Main thread.
///
/// When the window that it covers is destroyed, the ad counts as dismissed by the user: one report,
/// one `fullscreenAdDismissed`. While the ad waits for its window, `show` fails instead.
class FullscreenAdVC : public MRControllerDelegate,
                       public ViewControllerDelegate,
                       public std::enable_shared_from_this<FullscreenAdVC> {
 public:
  static std::shared_ptr<FullscreenAdVC> create(Ad adData);

  void setDelegate(std::weak_ptr<FullscreenAdVCDelegate> delegate);
  void loadAd();
  /// Calls `completion` once. Fails with `adAlreadyShown`: before this returns when the ad is
  /// presented already, there is no network or the window of `fromVC` is destroyed; later when
  /// that is destroyed before the ad is on screen. Fails with `adNotReady` when the page's process
  /// has ended. Succeeds when the ad has taken the screen, for which it waits while its window is
  /// not on screen.
  void show(ViewController& fromVC, std::function<void(Result<bool>)> completion);
  /// Leaves the screen with nothing told and nothing reported: the runtime is at its end.
  void abandon();

  void controllerAdReady(MRController&, std::shared_ptr<AdView> adView) override;
  void controllerAdFailed(MRController&, const Error& error) override;
  void controllerAdClicked(MRController&) override;
  void controllerRewardEarned(MRController&) override;
  void controllerVideoComplete(MRController&) override;
  void controllerAdDismiss(MRController&) override;
  void controllerVideoEvent(MRController&, double duration, double currentDuration) override;

  void viewControllerDidRequestCancel() override;
  void viewControllerDidChangeOnScreen() override;
  void viewControllerWasTornDown() override;

 private:
  explicit FullscreenAdVC(Ad adData);
  void setup();
  void track(const BidReportAction& action);
  void didPresent();
  void close();
  void didDismiss();

  const Ad adData_;
  std::shared_ptr<ViewController> viewController_;
  std::shared_ptr<AdView> adView_;
  std::shared_ptr<MRController> mrController_;
  std::weak_ptr<FullscreenAdVCDelegate> delegate_;
  std::function<void(Result<bool>)> shown_;  ///< the completion of a show under way
  bool isClicked_ = false;
  bool isRewardEarned_ = false;
  bool isClosed_ = false;
  bool isDismissed_ = false;
  double currentVideoQuarter_ = 1.0;  ///< the next one to report
};

}  // namespace kva
