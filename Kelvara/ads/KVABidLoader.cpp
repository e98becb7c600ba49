#include <Kelvara/KVABidLoader.h>

#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/HostCallback.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/Device.h>

namespace kva {
namespace {

using BidCompletion = Completion<Result<std::shared_ptr<KVABidResponse>>>;

/// Bids with the first plan, in the server's order, that has not reached its caps.
void handle(const BidLoadResponse& response, BidCompletion completion) {
  const auto refuse = [&](const char* message) {
    completion(failure(SDKHelper::Error::error(KVAErrorCodes::noActivePlan, message)));
  };
  if (response.plans.empty()) return refuse("No plan.");

  const Plan* selected = nullptr;
  for (const auto& plan : response.plans) {
    if (FrequencyCappingManager::shared().shouldShow(plan)) {
      selected = &plan;
      break;
    }
    Log::d("Frequency capping reached for plan " + plan.planId);
  }
  if (!selected) return refuse("No active plan.");

  if (!response.bidId)
    fatal(
        "the bid response has plans but no bid identifier; check the server with "
        "kelvara-server-check");
  SDKHelper::App::expectAd();
  completion(
      std::make_shared<KVABidResponse>(selected->planId, *response.bidId, selected->price()));
}

void load(const std::string& adUnit, KVABidType bidType, BidCompletion completion) {
  const AdType adType =
      bidType == KVABidType::interstitial ? AdType::interstitial : AdType::rewarded;
  Json body;  // filled member by member: an initialiser list copies each value
  // Both ids are set by now, unless the host has removed one in the meantime.
  body["aid"] = orNull(SDKManager::shared().appId());
  body["uid"] = orNull(AnalyticsManager::shared().userId());
  body["adid"] = adUnit;
  body["pl"] = SDKHelper::Device::platform();
  body["adt"] = std::string(rawValue(adType));
  body["osv"] = SDKHelper::Device::osVersion();
  body["dbra"] = SDKHelper::Device::deviceBrand();
  body["dmod"] = SDKHelper::Device::deviceModel();
  RequestManager::loadBid(std::move(body), [adUnit, completion = std::move(completion)](
                                               Result<BidLoadResponse> result) mutable {
    if (result) return handle(*result, std::move(completion));
    if (result.error().code() != SDKHelper::GenericErrorCodes::noInternet)
      FrequencyCappingManager::shared().trackNofill(adUnit);
    completion(failure(result.error()));
  });
}

}  // namespace

void KVABidLoader::loadBid(
    std::string adUnit, KVABidType bidType,
    std::function<void(std::shared_ptr<KVABidResponse>, std::optional<Error>)> completion) {
  BidCompletion finish([host = std::move(completion)](auto result) {
    if (!host) return;
    const HostCallback callback;
    if (result)
      host(*std::move(result), std::nullopt);
    else
      host(nullptr, result.error());
  });
  const auto refuse = [&](KVAErrorCodes code, const char* message) {
    finish(failure(SDKHelper::Error::error(code, message)));
  };

  const auto& sdk = SDKManager::shared();
  if (!sdk.isInitialized())
    return refuse(KVAErrorCodes::sdkNotInitialized, "SDK isn't initialized.");
  if (!isValidUUID(adUnit)) return refuse(KVAErrorCodes::invalidAdUnit, "AdUnit isn't valid.");
  if (!sdk.isReachable())
    return refuse(KVAErrorCodes::noInternetConnection, "No internet connection.");
  if (const auto allowed = FrequencyCappingManager::shared().shouldRequestAdUnit(adUnit); !allowed)
    return finish(failure(allowed.error()));

  auto& analytics = AnalyticsManager::shared();
  if (analytics.isRegistered()) return load(adUnit, bidType, std::move(finish));
  analytics.register_([adUnit = std::move(adUnit), bidType,
                       finish = std::move(finish)](std::optional<Error> error) mutable {
    if (error) return finish(failure(*std::move(error)));
    load(adUnit, bidType, std::move(finish));
  });
}

void KVABidLoader::sendBidLost(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice) {
  if (!SDKManager::shared().isInitialized()) return Log::e("SDK isn't initialized.");
  if (!SDKManager::shared().isReachable()) return Log::e("No internet connection.");
  if (!bidResponse) return Log::e("Bid response isn't valid.");
  RequestManager::sendLost(bidResponse->bidId(), clearingPrice, [](Result<bool> result) {
    if (!result) return Log::d("SendLost error: " + result.error().localizedDescription());
    Log::d("Lost sent successfully.");
  });
}

}  // namespace kva
