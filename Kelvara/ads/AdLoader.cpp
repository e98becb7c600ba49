#include <Kelvara/ads/AdLoader.h>

#include <utility>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>

namespace kva {

std::shared_ptr<AdLoader> AdLoader::create() { return std::shared_ptr<AdLoader>(new AdLoader); }

void AdLoader::setDelegate(std::weak_ptr<AdLoaderDelegate> delegate) {
  state_.with([&](State& state) { state.delegate = std::move(delegate); });
}

std::optional<Ad> AdLoader::adData() const {
  return state_.with([](const State& state) { return state.adData; });
}

void AdLoader::load(const std::shared_ptr<KVABidResponse>& bidResponse, double clearingPrice) {
  const auto refuse = [this](KVAErrorCodes code, const char* message) {
    fail(SDKHelper::Error::error(code, message));
  };
  const auto& sdk = SDKManager::shared();
  if (!sdk.isInitialized())
    return refuse(KVAErrorCodes::sdkNotInitialized, "SDK isn't initialized.");
  if (!bidResponse || !bidResponse->isValid())
    return refuse(KVAErrorCodes::invalidBidResponse, "Bid response isn't valid.");
  if (!sdk.isReachable())
    return refuse(KVAErrorCodes::noInternetConnection, "No internet connection.");
  if (!FrequencyCappingManager::shared().shouldRequestBid(bidResponse->bidId()))
    return refuse(KVAErrorCodes::bidResponseAlreadyUsed, "Bid response already used.");

  const auto appId = sdk.appId();
  if (!appId) fatal("the SDK is initialized but has no application id");
  RequestManager::loadAd(*appId, *bidResponse, clearingPrice,
                         [self = shared_from_this()](Result<Ad> result) {
                           if (!result) return self->fail(result.error());
                           self->receive(*std::move(result));
                         });
}

void AdLoader::receive(Ad ad) {
  state_.with([&](State& state) { state.adData = std::move(ad); });
  if (const auto listener = delegate()) listener->adLoaderDidReceiveAd(*this);
}

void AdLoader::fail(const Error& error) {
  if (const auto listener = delegate()) listener->adLoaderDidFailToReceiveAd(*this, error);
}

std::shared_ptr<AdLoaderDelegate> AdLoader::delegate() const {
  return state_.with([](const State& state) { return state.delegate.lock(); });
}

}  // namespace kva
