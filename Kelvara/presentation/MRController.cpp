#include <Kelvara/presentation/MRController.h>

#include <algorithm>
#include <utility>

#include <Kelvara/ads/AdHelper.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/platform/ErrorTable.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {
namespace {

constexpr double kPropertiesInterval = 1.0;
constexpr double kCountdownInterval = 1.0;
constexpr double kLoadTimeout = 60.0;
constexpr Rect kInitialFrame{0, 0, 1, 1};

/// Whether the view and its ancestors are shown and the view is at least partly inside the window.
bool isVisible(const View& view) {
  auto window = view.window();
  auto superview = view.superview();
  if (!window || !window->isOnScreen() || !superview || view.isHidden()) return false;
  for (; superview; superview = superview->superview()) {
    if (superview->isHidden()) return false;
  }
  auto frame = view.frameInWindow();
  if (!frame) return false;
  const Size bounds = window->frame().size();
  const double width = std::min(frame->x + frame->width, bounds.width) - std::max(frame->x, 0.0);
  const double height = std::min(frame->y + frame->height, bounds.height) - std::max(frame->y, 0.0);
  return width > 0 && height > 0;
}

SafeArea safeArea(const Ad& ad) {
  return ad.creative.shouldCareSafeArea ? SafeArea::respect : SafeArea::ignore;
}

const std::vector<std::string> kFeatures = {"sms: false", "tel: false", "calendar: false",
                                            "storePicture: false", "inlineVideo: true"};

/// Builds the ad's document from its template.
Result<std::string> document(const std::optional<Template>& found, const Ad& ad) {
  using Code = KVAErrorCodes;
  if (!found) return failure(SDKHelper::Error::error(Code::noTemplate, "No templete found."));
  if (found->htmlData.empty())
    return failure(SDKHelper::Error::error(Code::invalidHtmlData, "HTML data isn't valid."));
  return AdHelper::finalize(found->htmlData, ad);
}

}  // namespace

std::shared_ptr<MRController> MRController::create(Ad adData) {
  std::shared_ptr<MRController> controller(new MRController(std::move(adData)));
  controller->setup();
  return controller;
}

MRController::MRController(Ad adData) : adData_(std::move(adData)) {}

auto MRController::weakly(void (MRController::*call)()) {
  return [weak = weak_from_this(), call] {
    if (auto self = weak.lock()) (self.get()->*call)();
  };
}

void MRController::setup() {
  commandHandler_.setDelegate(weak_from_this());
  auto& center = *Runtime::current().platform().notificationCenter;
  orientationObservation_ = center.addObserver(kOrientationDidChangeNotification, nullptr,
                                               weakly(&MRController::orientationDidChange));
  stateObservation_ = center.addObserver(kApplicationStateDidChangeNotification, nullptr,
                                         weakly(&MRController::updateMraidProperties));
  setupWebView();
}

void MRController::setupWebView() {
  view_ = hostApplication().makeView(kInitialFrame);
  view_->setBackgroundColor(Color::clear);
  webView_ = KVAWebView::create(kInitialFrame, safeArea(adData_));
  webView_->setDelegate(weak_from_this());
  view_->addSubview(webView_->view(), Layout::edges(Layout::Area::plain));
}

void MRController::setDelegate(std::weak_ptr<MRControllerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void MRController::loadAd() {
  if (!SDKHelper::MRAID::mraidJS())
    return adDidFail(SDKHelper::Error::error(KVAErrorCodes::noMraidFile, "No MRAID.js file."));
  // The template may arrive on any thread; this controller is used on the main thread only.
  TemplateManager::shared().templateFor(
      adData_.templateId,
      [weak = weak_from_this(), ad = adData_,
       queue = Runtime::current().platform().mainQueue](std::optional<Template> found) {
        queue->async([weak, html = document(found, ad)]() mutable {
          if (auto self = weak.lock()) self->templateDidArrive(std::move(html));
        });
      });
}

void MRController::templateDidArrive(Result<std::string> html) {
  if (!html) return adDidFail(html.error());
  loadTimer_ = Runtime::current().platform().runLoop->schedule(
      kLoadTimeout, Repeats::no, weakly(&MRController::loadDidTimeOut));
  webView_->loadHTML(*html, std::nullopt);
}

void MRController::webViewDidFinishLoad(KVAWebView&) {
  isPageLoaded_ = true;
  previous_ = {};
  updateMraidProperties();
  fireEvent({MREvent::Ready()});
  // The page, or one in its place, may load again. The ad view exists already then.
  if (adView_) return;
  adView_ = AdView::create(view_, webView_, adData_.creative.contentType);
  adView_->setDelegate(weak_from_this());
  adView_->setCloseButtonHidden(adData_.creative.isCloseButtonHidden());
  if (!adData_.creative.preload() || isPreloadComplete_) adDidBecomeReady();
}

void MRController::webViewDidFailToLoad(KVAWebView&, const Error& error) { adDidFail(error); }

void MRController::webViewProcessDidTerminate(KVAWebView&, const Error& error) {
  isPageGone_ = true;
  adDidFail(error);
}

// For links in the page itself, the bridge script sends open commands.
void MRController::webViewDidFollowLink(KVAWebView&, const URL& url) {
  commandHandler_.handleComand("open", {{{"url", url.absoluteString()}}});
}

void MRController::loadDidTimeOut() {
  // Destroying the view ends the page's process.
  adView_.reset();
  webView_.reset();
  adDidFail(errorWithRemedy(kURLErrorDomain, static_cast<std::int64_t>(URLError::timedOut),
                            "The page has not loaded in time."));
}

void MRController::adDidBecomeReady() {
  if (std::exchange(isOutcomeSent_, true)) return;
  loadTimer_.invalidate();
  if (auto delegate = delegate_.lock()) delegate->controllerAdReady(*this, adView_);
}

void MRController::adDidFail(const Error& error) {
  if (std::exchange(isOutcomeSent_, true)) return;
  loadTimer_.invalidate();
  if (auto delegate = delegate_.lock()) delegate->controllerAdFailed(*this, error);
}

bool MRController::webViewShouldAllowNavigation(KVAWebView&,
                                                const std::optional<URLRequest>& request) {
  if (!request) return false;
  const URL& url = request->url;
  Log::d("should allow url: " + url.absoluteString());
  if (url.scheme() == "mraid") {
    if (!url.host() || !url.query() || !hasWellFormedQuery(url)) return false;
    commandHandler_.handleComand(*url.host(), queryDictionary(url));
    return false;
  }
  if (url.scheme() == "kva") {
    if (!url.host() || !hasWellFormedQuery(url)) return false;
    commandHandler_.handleKVAComand(*url.host(), queryDictionary(url));
    return false;
  }
  return url.scheme() != "ios-log";
}

void MRController::willPresentVC() { isTryingToPresent_ = true; }

void MRController::didPresentVC() {
  isTryingToPresent_ = false;
  fireEvent({MREvent::Config{.features = kFeatures, .state = "default"}});
  updateMraidProperties();
  if (adView_) adView_->adviewDidPresent();
  arcSecondsLeft_ = adData_.creative.arcDuration;
  runCountdown();
  // A negative duration starts no countdown, so close must be visible at once.
  if (arcSecondsLeft_ < 0 && adView_) adView_->setCloseButtonHidden(false);
}

void MRController::onScreenDidChange() { runCountdown(); }

// The countdown pauses while the user cannot see the ad.
void MRController::runCountdown() {
  const auto window = adView_ ? adView_->view()->window() : nullptr;
  if (arcSecondsLeft_ <= 0 || !window || !window->isOnScreen()) return arcTimer_.invalidate();
  if (arcTimer_) return;
  arcTimer_ = Runtime::current().platform().runLoop->schedule(kCountdownInterval, Repeats::yes,
                                                              weakly(&MRController::arcTimerTick));
}

void MRController::cleanUp() {
  for (Timer* timer : {&loadTimer_, &propertiesTimer_, &arcTimer_}) timer->invalidate();
  orientationObservation_.stop();
  stateObservation_.stop();
  if (!std::exchange(isPageLoaded_, false)) return;
  // In this order: a hidden page ignores further changes.
  fireEvent({MREvent::Viewable{false}});
  fireEvent({MREvent::Config{.features = kFeatures, .state = "hidden"}});
}

void MRController::propertiesTimerTick() { updateMraidProperties(); }

void MRController::arcTimerTick() {
  if (--arcSecondsLeft_ > 0) return;
  arcTimer_.invalidate();
  if (adView_) adView_->setCloseButtonHidden(false);
  if (auto delegate = delegate_.lock()) delegate->controllerRewardEarned(*this);
}

void MRController::orientationDidChange() {
  if (!isPageLoaded_) return;
  updateMraidProperties();
  // The page learns the new geometry from the properties; the degrees are always 0.
  fireEvent({MREvent::OrientationChange{0}});
}

template <class Event, class T>
void MRController::sendIfChanged(T& previous, const T& current) {
  if (previous == current) return;
  previous = current;
  fireEvent({Event{current}});
}

void MRController::updateMraidProperties() {
  if (isTryingToPresent_ || !isPageLoaded_) return;
  sendIfChanged<MREvent::CurrentPosition>(previous_.currentFrame, adFrameInScreen());
  sendIfChanged<MREvent::DefaultPosition>(previous_.adFrame, adViewFrame());
  sendIfChanged<MREvent::ScreenSize>(previous_.screenSize, hostApplication().screenSize());
  sendIfChanged<MREvent::MaxSize>(previous_.maxSize, applicationFrame(safeArea(adData_)).size());
  sendIfChanged<MREvent::Viewable>(previous_.isViewable, isAdViewable());
}

Rect MRController::adFrameInScreen() const {
  if (adData_.creative.adType == AdType::banner) return bannerFrame();
  return applicationFrame(safeArea(adData_));
}

Rect MRController::adViewFrame() const {
  if (!adView_ || !adView_->view()->window()) return {};
  return adData_.creative.adType == AdType::banner ? bannerFrame() : adView_->view()->frame();
}

// The key window's content fills it, so its coordinates are the window's.
Rect MRController::bannerFrame() const {
  if (!adView_ || !adView_->view()->superview() || !hostApplication().keyWindow()) return {};
  return adView_->view()->frameInWindow().value_or(Rect());
}

bool MRController::isAdViewable() const {
  return adView_ && isVisible(*adView_->view()) &&
         hostApplication().state() == HostApplication::State::active;
}

void MRController::fireEvent(const MREvent& event) {
  const std::string javaScript = event.javaScript();
  Log::d("fire event: " + javaScript);
  if (webView_) webView_->executeJavascript(javaScript);
}

void MRController::commandHandlerCommandCompleted(MRCommandHandler&, const std::string& command) {
  fireEvent({MREvent::CommandComplete{command}});
}

void MRController::commandHandlerCommandFailed(MRCommandHandler&, const std::string& command,
                                               const std::string& error) {
  fireEvent({MREvent::CommandError{command, error}});
}

void MRController::commandHandlerOpenURL(MRCommandHandler&, const URL& url) {
  // Block addresses that the page opens before the user has tapped it.
  if (!adView_ || !adView_->wasTapped()) return;
  if (auto delegate = delegate_.lock()) delegate->controllerAdClicked(*this);
  hostApplication().openURL(url);
}

void MRController::commandHandlerResize(MRCommandHandler&) {}

void MRController::commandHandlerPreloadComplete(MRCommandHandler&) {
  if (!adData_.creative.preload()) return;
  isPreloadComplete_ = true;
  if (adView_) adDidBecomeReady();
}

void MRController::commandHandlerVideoComplete(MRCommandHandler&) {
  if (auto delegate = delegate_.lock()) delegate->controllerVideoComplete(*this);
  if (adView_) adView_->videoCompleted();
}

void MRController::commandHandlerVideoEvent(MRCommandHandler&, double duration,
                                            double currentDuration) {
  if (auto delegate = delegate_.lock())
    delegate->controllerVideoEvent(*this, duration, currentDuration);
}

void MRController::adViewDidTapClose(AdView&) {
  cleanUp();
  if (auto delegate = delegate_.lock()) delegate->controllerAdDismiss(*this);
}

void MRController::adViewDidTapSkip(AdView&) { fireEvent({MREvent::Skip()}); }

void MRController::adViewDidMoveToWindow(AdView&) {
  propertiesTimer_ = Runtime::current().platform().runLoop->schedule(
      kPropertiesInterval, Repeats::yes, weakly(&MRController::propertiesTimerTick));
}

void MRController::adViewDidTapPrivacy(AdView&) {
  if (auto application = SDKManager::shared().application())
    hostApplication().openURL(application->privacyPolicy);
}

void MRController::adViewDidTapSoundMute(AdView&, bool isMuted) {
  if (previousIsSoundMuted_ == isMuted) return;
  previousIsSoundMuted_ = isMuted;
  fireEvent({MREvent::VideoMute{isMuted}});
}

}  // namespace kva
