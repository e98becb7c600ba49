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

/// Notified of the events of a full-screen ad. Main thread.
class FullscreenAdVCDelegate {
 public:
  virtual ~FullscreenAdVCDelegate() = default;
  virtual void fullscreenAdReady(FullscreenAdVC&) = 0;
  virtual void fullscreenAdFailed(FullscreenAdVC&, const Error& error) = 0;
  virtual void fullscreenAdClicked(FullscreenAdVC&) = 0;       ///< at most once
  virtual void fullscreenAdRewardEarned(FullscreenAdVC&) = 0;  ///< at most once
  virtual void fullscreenAdDismissed(FullscreenAdVC&) = 0;     ///< at most once, the last call
};

/// Shows one ad full screen and reports its events. An ad on screen lives until it is dismissed,
/// even if the host releases it: the user can always close it. Main thread.
///
/// If the host's window is destroyed, the ad counts as dismissed by the user: one report, one
/// `fullscreenAdDismissed`. If the ad is not on screen yet, `show` fails instead.
class FullscreenAdVC : public MRControllerDelegate,
                       public ViewControllerDelegate,
                       public std::enable_shared_from_this<FullscreenAdVC> {
 public:
  static std::shared_ptr<FullscreenAdVC> create(Ad adData);
  ~FullscreenAdVC() override;

  void setDelegate(std::weak_ptr<FullscreenAdVCDelegate> delegate);
  void loadAd();
  /// Calls `completion` once. Fails before it returns with `adAlreadyShown` if the ad is already
  /// presented, there is no network or the window of `fromVC` is destroyed, and with `adNotReady`
  /// if the page's process has ended. Fails later with `adAlreadyShown` if the window is destroyed
  /// before the ad is on screen. Succeeds when the ad is on screen; while its window is not, it
  /// waits.
  void show(ViewController& fromVC, std::function<void(Result<bool>)> completion);
  /// Removes the ad from the screen at the runtime's end, without a delegate call or a report.
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
  void setupOffsceen();
  void track(const BidReportAction& action);
  void didPresent();
  void close();
  void didDismiss();

  const Ad adData_;
  std::shared_ptr<ViewController> viewController_;
  std::shared_ptr<AdView> adView_;
  std::shared_ptr<MRController> mrController_;
  std::weak_ptr<FullscreenAdVCDelegate> delegate_;
  std::function<void(Result<bool>)> shown_;  ///< the completion of a pending show
  bool isClicked_ = false;
  bool isRewardEarned_ = false;
  bool isClosed_ = false;
  bool isDismissed_ = false;
  double currentVideoQuarter_ = 1.0;  ///< the next one to report
};

}  // namespace kva
