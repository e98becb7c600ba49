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

/// Notified of the creative's events. Main thread.
class MRControllerDelegate {
 public:
  virtual ~MRControllerDelegate() = default;
  /// Either ready or failed is called, at most once.
  virtual void controllerAdReady(MRController&, std::shared_ptr<AdView> adView) = 0;
  virtual void controllerAdFailed(MRController&, const Error& error) = 0;
  virtual void controllerAdClicked(MRController&) = 0;
  virtual void controllerRewardEarned(MRController&) = 0;
  virtual void controllerVideoComplete(MRController&) = 0;
  virtual void controllerAdDismiss(MRController&) = 0;
  /// Both in seconds, as the page sends them.
  virtual void controllerVideoEvent(MRController&, double duration, double currentDuration) = 0;
};

/// Runs one creative from its template to its dismissal: loads the page, sends it the MRAID
/// properties, carries out its commands and counts down to the reward. Sends changed properties
/// once a second and when the application's state changes, but nothing before the page has loaded.
/// Fails with `URLError::timedOut` if the page is not ready 60 s after its load began. Main thread.
/// Timers, observers and pending work hold it weakly.
class MRController : public KVAWebViewDelegate,
                     public MRCommandHandlerDelegate,
                     public AdViewDelegate,
                     public std::enable_shared_from_this<MRController> {
 public:
  static std::shared_ptr<MRController> create(Ad adData);

  void setDelegate(std::weak_ptr<MRControllerDelegate> delegate);
  /// The view of the ad: the page, and once it has loaded the controls.
  const std::shared_ptr<View>& view() const { return view_; }

  void loadAd();
  /// False once the page's process has ended.
  bool canPresent() const { return !isPageGone_; }
  /// Pauses the page's updates until `didPresentVC`.
  void willPresentVC();
  void didPresentVC();
  /// Stops every timer and notifies the page that the ad closes: no longer viewable, then hidden.
  void cleanUp();
  /// The ad's window appeared on screen or left it.
  void onScreenDidChange();

  void webViewDidFinishLoad(KVAWebView&) override;
  void webViewDidFailToLoad(KVAWebView&, const Error& error) override;
  void webViewProcessDidTerminate(KVAWebView&, const Error& error) override;
  void webViewDidFollowLink(KVAWebView&, const URL& url) override;
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
  void loadDidTimeOut();

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

  /// Wraps `call` in a callback that does nothing once this controller is destroyed.
  auto weakly(void (MRController::*call)());

  std::weak_ptr<MRControllerDelegate> delegate_;
  const Ad adData_;
  std::shared_ptr<View> view_;
  std::shared_ptr<AdView> adView_;
  std::shared_ptr<KVAWebView> webView_;
  MRCommandHandler commandHandler_;
  Observation orientationObservation_, stateObservation_;
  Timer loadTimer_, propertiesTimer_, arcTimer_;
  std::int64_t arcSecondsLeft_ = 0;
  bool isPageLoaded_ = false;
  bool isPageGone_ = false;
  bool isPreloadComplete_ = false;
  bool isOutcomeSent_ = false;
  bool isTryingToPresent_ = false;

  /// The properties last sent to the current page.
  struct Sent {
    Rect currentFrame, adFrame;
    Size screenSize, maxSize;
    bool isViewable = false;
  };
  Sent previous_;
  std::optional<bool> previousIsSoundMuted_;
};

}  // namespace kva
