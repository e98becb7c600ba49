#pragma once

#include <memory>
#include <string>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/platform/View.h>
#include <Kelvara/presentation/KVAWebView.h>

namespace kva {

class AdView;

/// Hears what the user does with the ad's controls. Main thread.
class AdViewDelegate {
 public:
  virtual ~AdViewDelegate() = default;
  virtual void adViewDidTapClose(AdView& adView) = 0;
  virtual void adViewDidTapSkip(AdView& adView) = 0;
  /// Put into a window, or taken out of it.
  virtual void adViewDidMoveToWindow(AdView& adView) = 0;
  virtual void adViewDidTapPrivacy(AdView& adView) = 0;
  virtual void adViewDidTapSoundMute(AdView& adView, bool isMuted) = 0;
};

/// The creative's page with the SDK's own controls over it: close and privacy, for a video skip
/// and sound too. Until a video has ended or was skipped, skip stands in the place of close.
/// Whatever changes a control from outside shows on a later turn of the main queue. Main thread.
class AdView : public ViewDelegate, public std::enable_shared_from_this<AdView> {
 public:
  static std::shared_ptr<AdView> create(Rect frame, Creative::ContentType contentType);

  void setDelegate(std::weak_ptr<AdViewDelegate> delegate);
  const std::shared_ptr<View>& view() const { return view_; }

  /// Behind the controls, from edge to edge.
  void setWebView(std::shared_ptr<KVAWebView> webView);
  /// True from the first press on the page; a press on a control is none.
  bool wasTapped() const { return wasTapped_; }
  /// Whether close, or for a video skip, is kept from the user.
  void setCloseButtonHidden(bool isHidden);
  void adviewDidPresent();
  void videoCompleted();
  /// Does what the close or skip control that the user sees does; nothing while there is none.
  void cancel();

  void viewDidMoveToWindow() override;

 private:
  using Action = void (AdView::*)();
  /// A control's image, its accessible name, and the text that it shows without its image.
  struct Look {
    const char *image, *name, *symbol;
  };
  static const Look kClose, kSkip, kPrivacy, kSoundOn, kSoundOff;

  explicit AdView(Creative::ContentType contentType);
  void setup(Rect frame);
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
  std::shared_ptr<View> view_;
  std::shared_ptr<KVAWebView> webView_;
  bool wasTapped_ = false;
  const Creative::ContentType contentType_;
  bool isSoundMuted_;
  bool isCloseButtonHidden_ = false;
  bool isVideoOver_ = false;
  std::shared_ptr<Button> closeButton_, skipButton_, privacyButton_, soundButton_;
};

}  // namespace kva
