#include <Kelvara/KVAInterstital.h>

#include <utility>

#include <Kelvara/presentation/FullscreenAd.h>

namespace kva {
namespace {

void notify(KVAInterstitialDelegate& delegate, KVAInterstital& ad, AdEvent event,
            const std::optional<Error>& error) {
  switch (event) {
    case AdEvent::didReceive:
      return delegate.interstitialDidReceive(ad);
    case AdEvent::didFailToReceive:
      return delegate.interstitialDidFailToReceive(ad, *error);
    case AdEvent::didPresent:
      return delegate.interstitialDidPresent(ad);
    case AdEvent::didFailToPresent:
      return delegate.interstitialDidFailToPresent(ad, *error);
    case AdEvent::didClick:
      return delegate.interstitialDidClick(ad);
    case AdEvent::didComplete:
      return;  // earns no reward
    case AdEvent::didDismiss:
      return delegate.interstitialDidDismiss(ad);
  }
}

}  // namespace

std::shared_ptr<KVAInterstital> KVAInterstital::create() {
  return std::shared_ptr<KVAInterstital>(new KVAInterstital);
}

KVAInterstital::KVAInterstital() : KVAAd(std::make_shared<FullscreenAd>(AdType::interstitial)) {}

KVAInterstital::~KVAInterstital() = default;

void KVAInterstital::setDelegate(std::weak_ptr<KVAInterstitialDelegate> delegate) {
  fullscreenAd().setDelegate(std::move(delegate), weak_from_this(), notify);
}

}  // namespace kva
