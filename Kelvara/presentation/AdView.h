#pragma once

#include <memory>
#include <string>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/platform/View.h>
#include <Kelvara/presentation/AccessibleNames.h>
#include <Kelvara/presentation/KVAWebView.h>

namespace kva {

class AdView;

/// Notified when the user activates one of the ad's controls. Main thread.
class AdViewDelegate {
 public:
  virtual ~AdViewDelegate() = default;
  virtual void adViewDidTapClose(AdView& adView) = 0;
  virtual void adViewDidTapSkip(AdView& adView) = 0;
  /// The view was added to a window or removed from it.
  virtual void adViewDidMoveToWindow(AdView& adView) = 0;
  virtual void adViewDidTapPrivacy(AdView& adView) = 0;
  virtual void adViewDidTapSoundMute(AdView& adView, bool isMuted) = 0;
};

/// The SDK's controls over the creative's page: close and privacy, for a video also skip and
/// sound. Skip takes the place of close until a video has ended or was skipped. The setters change
/// the controls on a later turn of the main queue. Main thread.
class AdView : public ViewDelegate, public std::enable_shared_from_this<AdView> {
 public:
  /// Adds the controls to `view`, which contains the page, `webView`.
  static std::shared_ptr<AdView> create(std::shared_ptr<View> view,
                                        std::shared_ptr<KVAWebView> webView,
                                        Creative::ContentType contentType);

  void setDelegate(std::weak_ptr<AdViewDelegate> delegate);
  const std::shared_ptr<View>& view() const { return view_; }

  /// True from the first press on the page. A press on a control does not count.
  bool wasTapped() const { return wasTapped_; }
  /// Hides or shows close, or skip for a video.
  void setCloseButtonHidden(bool isHidden);
  void adviewDidPresent();
  void videoCompleted();
  /// Activates skip or close, whichever is visible. Does nothing if neither is.
  void cancel();

  void viewDidMoveToWindow() override;

 private:
  using Action = void (AdView::*)();
  /// A control's image, what it does, and the text to show if the image is missing.
  struct Look {
    const char* image;
    Spoken action;
    const char* symbol;
  };
  static const Look kClose, kSkip, kPrivacy, kSoundOn, kSoundOff;

  AdView(std::shared_ptr<View> view, std::shared_ptr<KVAWebView> webView,
         Creative::ContentType contentType);
  void setup();
  std::shared_ptr<Button> makeButton(Layout::Corner corner, const Look& look, Action action);
  void setLook(Button& button, const Look& look);
  void setupSoundButton();
  void showCloseControl();
  void endVideo();
  void onMainQueue(Action action);
  void pageWasTouched();

  void closeButtonTapped();
  void skipButtonTapped();
  void privacyButtonTapped();
  void soundButtonTapped();

  std::weak_ptr<AdViewDelegate> delegate_;
  const std::shared_ptr<View> view_;
  const std::shared_ptr<KVAWebView> webView_;
  bool wasTapped_ = false;
  const Creative::ContentType contentType_;
  bool isSoundMuted_;
  bool isCloseButtonHidden_ = false;
  bool isVideoOver_ = false;
  std::shared_ptr<Button> closeButton_, skipButton_, privacyButton_, soundButton_;
};

}  // namespace kva
