#include <Kelvara/KVARewarded.h>

#include <utility>

#include <Kelvara/presentation/FullscreenAd.h>

namespace kva {
namespace {

void notify(KVARewardedDelegate& delegate, KVARewarded& ad, AdEvent event,
            const std::optional<Error>& error) {
  switch (event) {
    case AdEvent::didReceive:
      return delegate.rewardedDidReceive(ad);
    case AdEvent::didFailToReceive:
      return delegate.rewardedDidFailToReceive(ad, *error);
    case AdEvent::didPresent:
      return delegate.rewardedDidPresent(ad);
    case AdEvent::didFailToPresent:
      return delegate.rewardedDidFailToPresent(ad, *error);
    case AdEvent::didClick:
      return delegate.rewardedDidClick(ad);
    case AdEvent::didComplete:
      return delegate.rewardedDidComplete(ad);
    case AdEvent::didDismiss:
      return delegate.rewardedDidDismiss(ad);
  }
}

}  // namespace

std::shared_ptr<KVARewarded> KVARewarded::create() {
  return std::shared_ptr<KVARewarded>(new KVARewarded);
}

KVARewarded::KVARewarded() : KVAAd(std::make_shared<FullscreenAd>(AdType::rewarded)) {}

KVARewarded::~KVARewarded() = default;

void KVARewarded::setDelegate(std::weak_ptr<KVARewardedDelegate> delegate) {
  fullscreenAd().setDelegate(std::move(delegate), weak_from_this(), notify);
}

}  // namespace kva
