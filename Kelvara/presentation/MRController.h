#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/ads/Ad.h>
#include <Kelvara/platform/NotificationCenter.h>
#include <Kelvara/platform/RunLoop.h>
#include <Kelvara/presentation/AdView.h>
#include <Kelvara/presentation/KVAWebView.h>
#include <Kelvara/presentation/MRCommandHandler.h>
#include <Kelvara/presentation/MREvent.h>

namespace kva {

class MRController;

/// Hears what becomes of the creative. Main thread.
class MRControllerDelegate {
 public:
  virtual ~MRControllerDelegate() = default;
  /// Of ready and failed comes at most one, and that once.
  virtual void controllerAdReady(MRController&, std::shared_ptr<AdView> adView) = 0;
  virtual void controllerAdFailed(MRController&, const Error& error) = 0;
  virtual void controllerAdClicked(MRController&) = 0;
  virtual void controllerRewardEarned(MRController&) = 0;
  virtual void controllerVideoComplete(MRController&) = 0;
  virtual void controllerAdDismiss(MRController&) = 0;
  /// Both in seconds, as the page says.
  virtual void controllerVideoEvent(MRController&, double duration, double currentDuration) = 0;
};

/// Drives one creative from its template to its dismissal: loads the page, tells it of MRAID's
/// state (polled once a second, only what changed is sent), carries out its commands, counts down
/// to the reward. Main thread. Timers, observers and pending work hold it weakly.
class MRController : public KVAWebViewDelegate,
                     public MRCommandHandlerDelegate,
                     public AdViewDelegate,
                     public std::enable_shared_from_this<MRController> {
 public:
  static std::shared_ptr<MRController> create(Ad adData);

  void setDelegate(std::weak_ptr<MRControllerDelegate> delegate);

  void loadAd();
  /// From here to `didPresentVC` the page is told of no change.
  void willPresentVC();
  void didPresentVC();
  /// The ad's window came on screen or left it.
  void onScreenDidChange();

  void webViewDidFinishLoad(KVAWebView&) override;
  void webViewDidFailToLoad(KVAWebView&, const Error& error) override;
  bool webViewShouldAllowNavigation(KVAWebView&, const std::optional<URLRequest>& request) override;

  void commandHandlerCommandCompleted(MRCommandHandler&, const std::string& command) override;
  void commandHandlerCommandFailed(MRCommandHandler&, const std::string& command,
                                   const std::string& error) override;
  void commandHandlerOpenURL(MRCommandHandler&, const URL& url) override;
  void commandHandlerResize(MRCommandHandler&) override;
  void commandHandlerPreloadComplete(MRCommandHandler&) override;
  void commandHandlerVideoComplete(MRCommandHandler&) override;
  void commandHandlerVideoEvent(MRCommandHandler&, double duration,
                                double currentDuration) override;

  void adViewDidTapClose(AdView&) override;
  void adViewDidTapSkip(AdView&) override;
  void adViewDidMoveToWindow(AdView&) override;
  void adViewDidTapPrivacy(AdView&) override;
  void adViewDidTapSoundMute(AdView&, bool isMuted) override;

 private:
  explicit MRController(Ad adData);
  void setup();
  void setupWebView();
  void templateDidArrive(Result<std::string> html);
  void adDidBecomeReady();
  void adDidFail(const Error& error);
  void cleanUp();

  void propertiesTimerTick();
  void runCountdown();
  void arcTimerTick();
  void orientationDidChange();

  void updateMraidProperties();
  template <class Event, class T>
  void sendIfChanged(T& previous, const T& current);
  Rect adFrameInScreen() const;
  Rect adViewFrame() const;
  Rect bannerFrame() const;
  bool isAdViewable() const;
  void fireEvent(const MREvent& event);

  /// A callback that does nothing once this controller is gone.
  auto weakly(void (MRController::*call)());

  std::weak_ptr<MRControllerDelegate> delegate_;
  const Ad adData_;
  std::shared_ptr<AdView> adView_;
  std::shared_ptr<KVAWebView> webView_;
  MRCommandHandler commandHandler_;
  Observation orientationObservation_;
  Timer propertiesTimer_, arcTimer_;
  std::int64_t arcSecondsLeft_ = 0;
  bool isPreloadComplete_ = false;
  bool isOutcomeTold_ = false;
  bool isTryingToPresent_ = false;

  // What the page was told last.
  Rect previousCurrentFrame_, previousAdFrame_;
  Size previousScreenSize_, previousMaxSize_;
  std::optional<bool> previousIsSoundMuted_;
  bool isViewable_ = false;
};

}  // namespace kva
