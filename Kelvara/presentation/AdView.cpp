#include <Kelvara/presentation/AdView.h>

#include <filesystem>
#include <utility>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/Settings.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {
namespace {

constexpr double kButtonWidth = 60.0;
constexpr EdgeInsets kImageInsets{10, 10, 10, 10};
constexpr double kPrivacyAlpha = 0.8;

}  // namespace

const AdView::Look AdView::kClose{"icon.close", Spoken::close, "×"};
const AdView::Look AdView::kSkip{"icon.skip", Spoken::skip, "»"};
const AdView::Look AdView::kPrivacy{"icon.adchoices", Spoken::privacy, "i"};
// "soundonn" is the image's name.
const AdView::Look AdView::kSoundOn{"icon.soundonn", Spoken::mute, "♪"};
const AdView::Look AdView::kSoundOff{"icon.soundoff", Spoken::unmute, "-"};

std::shared_ptr<AdView> AdView::create(std::shared_ptr<View> view,
                                       std::shared_ptr<KVAWebView> webView,
                                       Creative::ContentType contentType) {
  std::shared_ptr<AdView> adView(new AdView(std::move(view), std::move(webView), contentType));
  adView->setup();
  return adView;
}

AdView::AdView(std::shared_ptr<View> view, std::shared_ptr<KVAWebView> webView,
               Creative::ContentType contentType)
    : view_(std::move(view)),
      webView_(std::move(webView)),
      contentType_(contentType),
      isSoundMuted_(SDKHelper::Settings::isSoundMuted()) {}

void AdView::setup() {
  using Corner = Layout::Corner;
  view_->setDelegate(weak_from_this());
  webView_->setTouched([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->pageWasTouched();
  });
  // The last one is on top: in a small window the controls overlap, and close and skip must stay
  // reachable.
  privacyButton_ = makeButton(Corner::bottomTrailing, kPrivacy, &AdView::privacyButtonTapped);
  privacyButton_->view()->setHidden(true);
  privacyButton_->view()->setAlpha(kPrivacyAlpha);
  setupSoundButton();
  closeButton_ = makeButton(Corner::topTrailing, kClose, &AdView::closeButtonTapped);
  if (contentType_ == Creative::ContentType::video)
    skipButton_ = makeButton(Corner::topTrailing, kSkip, &AdView::skipButtonTapped);
}

std::shared_ptr<Button> AdView::makeButton(Layout::Corner corner, const Look& look, Action action) {
  auto button = hostApplication().makeButton();
  button->view()->setBackgroundColor(Color::clear);
  setLook(*button, look);
  button->setAction([weak = weak_from_this(), action] {
    if (auto self = weak.lock()) (self.get()->*action)();
  });
  view_->addSubview(button->view(),
                    Layout::atCorner(corner, {kButtonWidth, kButtonWidth}, Layout::Area::safe));
  button->view()->bringToFront();
  return button;
}

// Creates the button, or updates its image. There is none after the end of the video.
void AdView::setupSoundButton() {
  if (contentType_ != Creative::ContentType::video || isVideoOver_) return;
  const auto& look = isSoundMuted_ ? kSoundOff : kSoundOn;
  if (!soundButton_) {
    soundButton_ = makeButton(Layout::Corner::topLeading, look, &AdView::soundButtonTapped);
    soundButton_->view()->setHidden(true);
    return;
  }
  setLook(*soundButton_, look);
}

void AdView::setLook(Button& button, const Look& look) {
  const Image image{.bundle = kvaBundle().value_or(std::filesystem::path()),
                    .name = look.image,
                    .symbol = look.symbol};
  if (!button.setImage(image, kImageInsets))
    Log::e("Image " + image.name + " couldn't be read from \"" + image.bundle.string() + "\".");
  button.setAccessibleName(accessibleName(look.action));
}

void AdView::setDelegate(std::weak_ptr<AdViewDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void AdView::setCloseButtonHidden(bool isHidden) {
  isCloseButtonHidden_ = isHidden;
  onMainQueue(&AdView::showCloseControl);
}

void AdView::showCloseControl() {
  if (contentType_ != Creative::ContentType::video) {
    closeButton_->view()->setHidden(isCloseButtonHidden_);
  } else if (!isVideoOver_) {
    // Not after the video: a longer countdown must not hide the close button again.
    skipButton_->view()->setHidden(isCloseButtonHidden_);
    closeButton_->view()->setHidden(true);
  }
}

void AdView::adviewDidPresent() {
  closeButton_->view()->setHidden(isCloseButtonHidden_ && !isVideoOver_);
  if (soundButton_) soundButton_->view()->setHidden(false);
  privacyButton_->view()->setHidden(false);
}

void AdView::videoCompleted() { onMainQueue(&AdView::endVideo); }

void AdView::endVideo() {
  isVideoOver_ = true;
  if (skipButton_) skipButton_->view()->setHidden(true);
  closeButton_->view()->setHidden(false);
  if (soundButton_) std::exchange(soundButton_, nullptr)->view()->removeFromSuperview();
}

// If both are shown, skip covers close.
void AdView::cancel() {
  if (skipButton_ && !skipButton_->view()->isHidden()) return skipButtonTapped();
  if (!closeButton_->view()->isHidden()) closeButtonTapped();
}

void AdView::viewDidMoveToWindow() {
  if (auto delegate = delegate_.lock()) delegate->adViewDidMoveToWindow(*this);
}

void AdView::pageWasTouched() {
  Log::d("AdView tapped.");
  wasTapped_ = true;
}

void AdView::closeButtonTapped() {
  if (auto delegate = delegate_.lock()) delegate->adViewDidTapClose(*this);
}

void AdView::skipButtonTapped() {
  if (auto delegate = delegate_.lock()) delegate->adViewDidTapSkip(*this);
  onMainQueue(&AdView::endVideo);
}

void AdView::privacyButtonTapped() {
  if (auto delegate = delegate_.lock()) delegate->adViewDidTapPrivacy(*this);
}

void AdView::soundButtonTapped() {
  isSoundMuted_ = !isSoundMuted_;
  onMainQueue(&AdView::setupSoundButton);
  if (auto delegate = delegate_.lock()) delegate->adViewDidTapSoundMute(*this, isSoundMuted_);
}

void AdView::onMainQueue(Action action) {
  Runtime::current().platform().mainQueue->async([weak = weak_from_this(), action] {
    if (auto self = weak.lock()) (self.get()->*action)();
  });
}

}  // namespace kva
