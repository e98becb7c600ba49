#include <Kelvara/presentation/FullscreenAd.h>

#include <utility>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/base/HostCallback.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>

namespace kva {

FullscreenAd::FullscreenAd(AdType adType)
    : adType_(adType), mainQueue_(Runtime::current().platform().mainQueue) {}

// The controller's views must be destroyed on the main thread.
FullscreenAd::~FullscreenAd() {
  auto controller = state_.with([](State& state) { return std::move(state.fullscreenVC); });
  if (controller && !mainQueue_->isMainThread())
    mainQueue_->async([controller = std::move(controller)] {});
}

void FullscreenAd::notify(AdEvent event, const std::optional<Error>& error) {
  const HostCallback callback;
  if (const auto listener = listener_.get()) listener(event, error);
}

void FullscreenAd::setStatus(AdStatus adStatus) {
  state_.with([&](State& state) { state.adStatus = adStatus; });
}

void FullscreenAd::setStatusOfShow(const FullscreenAdVC* controller, AdStatus adStatus) {
  state_.with([&](State& state) {
    const bool isShow = state.adStatus == AdStatus::willShow || state.adStatus == AdStatus::shown;
    if (isShow && state.fullscreenVC.get() == controller) state.adStatus = adStatus;
  });
}

bool FullscreenAd::hasStatus(AdStatus adStatus) const {
  return state_.with([&](const State& state) { return state.adStatus == adStatus; });
}

bool FullscreenAd::isLoaded() const { return hasStatus(AdStatus::loaded); }

bool FullscreenAd::isLoading() const { return hasStatus(AdStatus::loading); }

void FullscreenAd::loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice) {
  auto loader = AdLoader::create();
  loader->setDelegate(weak_from_this());
  state_.with([&](State& state) {
    state.adStatus = AdStatus::loading;
    state.bidResponse = bidResponse;
    state.adLoader = loader;
  });
  loader->load(bidResponse, clearingPrice);
}

void FullscreenAd::adLoaderDidReceiveAd(AdLoader&) {
  // The last load's loader, even if an earlier one has answered.
  const auto loader = state_.with([](State& state) { return state.adLoader; });
  auto ad = loader ? loader->adData() : std::nullopt;
  if (!ad) {
    return notify(
        AdEvent::didFailToReceive,
        SDKHelper::Error::error(KVAErrorCodes::adDataNotAvailable, "Ad data isn't available."));
  }
  mainQueue_->async([weak = weak_from_this(), ad = *std::move(ad)]() mutable {
    if (auto self = weak.lock()) self->setupFullscreenVC(std::move(ad));
  });
}

void FullscreenAd::adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) {
  // The status stays `loading`, as intended.
  notify(AdEvent::didFailToReceive, error);
}

void FullscreenAd::setupFullscreenVC(Ad ad) {
  auto controller = FullscreenAdVC::create(std::move(ad));
  auto previous =
      state_.with([&](State& state) { return std::exchange(state.fullscreenVC, controller); });
  controller->setDelegate(weak_from_this());
  controller->loadAd();
}

void FullscreenAd::fullscreenAdReady(FullscreenAdVC&) {
  setStatus(AdStatus::loaded);
  notify(AdEvent::didReceive);
}

void FullscreenAd::fullscreenAdFailed(FullscreenAdVC&, const Error& error) {
  setStatus(AdStatus::idle);
  notify(AdEvent::didFailToReceive, error);
}

void FullscreenAd::showAdFrom(std::shared_ptr<ViewController> host) {
  if (mainQueue_->isMainThread()) return show(*host);
  mainQueue_->async([self = shared_from_this(), host = std::move(host)] { self->show(*host); });
}

void FullscreenAd::show(ViewController& host) {
  Show show;
  const bool isAccepted = state_.with([&](State& state) {
    if (state.adStatus != AdStatus::loaded) return false;
    state.adStatus = AdStatus::willShow;
    show = {.controller = state.fullscreenVC, .bidResponse = state.bidResponse};
    return true;
  });
  if (!isAccepted) {
    return notify(AdEvent::didFailToPresent,
                  SDKHelper::Error::error(KVAErrorCodes::adNotReady, "Ad isn't ready."));
  }
  const auto controller = show.controller.lock();
  if (!controller) return;
  controller->show(host, [weak = weak_from_this(), show](const Result<bool>& result) {
    if (auto self = weak.lock()) self->didShow(show, result);
  });
}

void FullscreenAd::didShow(const Show& show, const Result<bool>& result) {
  const auto controller = show.controller.lock();
  if (!result) {
    setStatusOfShow(controller.get(), AdStatus::idle);
    // The ad cannot be shown again.
    state_.with([&](State& state) {
      if (state.fullscreenVC == controller) state.fullscreenVC.reset();
    });
    return notify(AdEvent::didFailToPresent, result.error());
  }
  setStatusOfShow(controller.get(), AdStatus::shown);
  notify(AdEvent::didPresent);
  FrequencyCappingManager::shared().trackImpression(
      show.bidResponse ? std::optional(show.bidResponse->planId()) : std::nullopt);
}

void FullscreenAd::fullscreenAdClicked(FullscreenAdVC&) { notify(AdEvent::didClick); }

void FullscreenAd::fullscreenAdRewardEarned(FullscreenAdVC&) {
  if (adType_ == AdType::rewarded) notify(AdEvent::didComplete);
}

void FullscreenAd::fullscreenAdDismissed(FullscreenAdVC& dismissed) {
  setStatusOfShow(&dismissed, AdStatus::idle);
  const auto controller = state_.with([&](State& state) {
    const bool isReplaced = state.fullscreenVC.get() != &dismissed;
    return isReplaced ? nullptr : std::exchange(state.fullscreenVC, nullptr);
  });
  dismissed.setDelegate({});
  notify(AdEvent::didDismiss);
}

}  // namespace kva
