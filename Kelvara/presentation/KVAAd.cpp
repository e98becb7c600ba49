#include <Kelvara/KVAAd.h>

#include <utility>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/presentation/FullscreenAd.h>

namespace kva {

KVAAd::KVAAd(std::shared_ptr<FullscreenAd> fullscreenAd) : fullscreenAd_(std::move(fullscreenAd)) {}

KVAAd::~KVAAd() = default;

void KVAAd::loadAd(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice) {
  fullscreenAd_->loadAd(std::move(bidResponse), clearingPrice);
}

void KVAAd::showAdFrom(std::shared_ptr<ViewController> host) {
  if (!host) fatal("showAdFrom needs the host's view controller");
  fullscreenAd_->showAdFrom(std::move(host));
}

bool KVAAd::isLoaded() const { return fullscreenAd_->isLoaded(); }

bool KVAAd::isLoading() const { return fullscreenAd_->isLoading(); }

}  // namespace kva
