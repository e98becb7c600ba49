#include <Kelvara/presentation/FullscreenAdVC.h>

#include <set>
#include <utility>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/platform/ErrorTable.h>
#include <Kelvara/presentation/AccessibleNames.h>
#include <Kelvara/presentation/ApplicationFrame.h>
#include <Kelvara/reporting/ReportManager.h>

namespace kva {
namespace {

constexpr double kVideoQuarters = 4.0;

/// The ads on screen. The runtime owns them and removes them from the host's windows at its end.
struct PresentedAds {
  std::set<std::shared_ptr<FullscreenAdVC>> all;

  ~PresentedAds() {
    for (const auto& controller : all) controller->abandon();
  }
  static PresentedAds& shared() { return Runtime::current().get<PresentedAds>(); }
};

auto refusal(const char* message, KVAErrorCodes code = KVAErrorCodes::adAlreadyShown) {
  return failure(SDKHelper::Error::error(code, message));
}

auto noWindow() {
  return failure(errorWithRemedy(
      "Kelvara", static_cast<std::int64_t>(KVAErrorCodes::adAlreadyShown), "No window."));
}

}  // namespace

std::shared_ptr<FullscreenAdVC> FullscreenAdVC::create(Ad adData) {
  std::shared_ptr<FullscreenAdVC> controller(new FullscreenAdVC(std::move(adData)));
  controller->setup();
  return controller;
}

FullscreenAdVC::FullscreenAdVC(Ad adData) : adData_(std::move(adData)) {}

FullscreenAdVC::~FullscreenAdVC() {
  if (!viewController_->isPresented()) viewController_->view()->removeFromSuperview();
}

void FullscreenAdVC::setup() {
  viewController_ = hostApplication().makeViewController();
  viewController_->setDelegate(weak_from_this());
  viewController_->view()->setBackgroundColor(Color::black);
  viewController_->setAccessibleName(accessibleName(Spoken::ad));
}

void FullscreenAdVC::setDelegate(std::weak_ptr<FullscreenAdVCDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void FullscreenAdVC::loadAd() {
  mrController_ = MRController::create(adData_);
  mrController_->setDelegate(weak_from_this());
  setupOffsceen();
  mrController_->loadAd();
}

// The name, one letter short, is intended. The page loads where it will be shown: a page that moves
// into a window must be drawn again.
void FullscreenAdVC::setupOffsceen() {
  const auto area = adData_.creative.shouldCareSafeArea ? Layout::Area::safe : Layout::Area::plain;
  viewController_->view()->addSubview(mrController_->view(), Layout::edges(area));
  if (auto window = hostApplication().keyWindow())
    window->view()->addSubview(viewController_->view(), Layout::standby(Layout::Area::plain));
}

void FullscreenAdVC::track(const BidReportAction& action) {
  ReportManager::shared().trackAction(adData_.bidId, action);
}

void FullscreenAdVC::show(ViewController& fromVC, std::function<void(Result<bool>)> completion) {
  // Before the checks, as intended: a refused show leaves the page's updates paused.
  if (mrController_) mrController_->willPresentVC();
  // The first three share one code, as intended.
  if (viewController_->isPresented()) return completion(refusal("Ad is already shown."));
  if (!SDKManager::shared().isReachable()) return completion(refusal("No internet connection."));
  if (!fromVC.view()->window()) return completion(noWindow());
  if (mrController_ && !mrController_->canPresent())
    return completion(refusal("Ad isn't ready.", KVAErrorCodes::adNotReady));
  PresentedAds::shared().all.insert(shared_from_this());
  shown_ = std::move(completion);
  fromVC.present(viewController_, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->didPresent();
  });
}

void FullscreenAdVC::didPresent() {
  // The completion comes first, then the report and the page.
  Runtime::current().platform().mainQueue->async(
      [bidId = adData_.bidId, controller = std::weak_ptr(mrController_)] {
        ReportManager::shared().trackAction(bidId, {BidReportAction::impression});
        if (auto shown = controller.lock()) shown->didPresentVC();
      });
  std::exchange(shown_, nullptr)(true);
}

void FullscreenAdVC::controllerAdReady(MRController&, std::shared_ptr<AdView> adView) {
  adView_ = std::move(adView);
  if (auto delegate = delegate_.lock()) delegate->fullscreenAdReady(*this);
}

void FullscreenAdVC::controllerAdFailed(MRController&, const Error& error) {
  if (auto delegate = delegate_.lock()) delegate->fullscreenAdFailed(*this, error);
}

void FullscreenAdVC::controllerAdClicked(MRController&) {
  if (std::exchange(isClicked_, true)) return;
  track({BidReportAction::click});
  if (auto delegate = delegate_.lock()) delegate->fullscreenAdClicked(*this);
}

void FullscreenAdVC::controllerRewardEarned(MRController&) {
  if (std::exchange(isRewardEarned_, true)) return;
  track({BidReportAction::complete});
  if (auto delegate = delegate_.lock()) delegate->fullscreenAdRewardEarned(*this);
}

void FullscreenAdVC::controllerVideoEvent(MRController&, double duration, double currentDuration) {
  if ((duration == 0 && currentDuration == 0) || currentDuration > duration) return;
  // A page that sends made-up times, such as infinite ones, gets past the fourth quarter.
  if (currentVideoQuarter_ > kVideoQuarters) return;
  const double threshold = duration / kVideoQuarters * currentVideoQuarter_;
  if (!(threshold <= currentDuration)) return;
  track({BidReportAction::videoQuarter, static_cast<std::int64_t>(currentVideoQuarter_)});
  currentVideoQuarter_ += 1;
}

void FullscreenAdVC::controllerVideoComplete(MRController&) {
  currentVideoQuarter_ = kVideoQuarters;
  track({BidReportAction::videoQuarter, static_cast<std::int64_t>(currentVideoQuarter_)});
}

void FullscreenAdVC::controllerAdDismiss(MRController&) {
  close();
  viewController_->dismiss([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->didDismiss();
  });
}

// The user has closed the ad or its window.
void FullscreenAdVC::close() {
  if (std::exchange(isClosed_, true)) return;
  if (auto controller = std::exchange(mrController_, nullptr)) {
    controller->setDelegate({});
    controller->cleanUp();
  }
  track({BidReportAction::dismiss});
}

void FullscreenAdVC::didDismiss() {
  if (std::exchange(isDismissed_, true)) return;
  const auto self = shared_from_this();
  PresentedAds::shared().all.erase(self);
  if (auto delegate = delegate_.lock()) delegate->fullscreenAdDismissed(*this);
}

void FullscreenAdVC::abandon() {
  if (auto controller = std::exchange(mrController_, nullptr)) controller->cleanUp();
  viewController_->dismiss([] {});
}

void FullscreenAdVC::viewControllerDidRequestCancel() {
  if (adView_) adView_->cancel();
}

void FullscreenAdVC::viewControllerDidChangeOnScreen() {
  if (mrController_) mrController_->onScreenDidChange();
}

void FullscreenAdVC::viewControllerWasTornDown() {
  if (auto shown = std::exchange(shown_, nullptr)) {
    PresentedAds::shared().all.erase(shared_from_this());
    return shown(noWindow());
  }
  close();
  didDismiss();
}

}  // namespace kva
