#include <Kelvara/user/ReferralTracking.h>

#include <utility>

#include <Kelvara/Kelvara.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/PrivacyManager.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

using Keys = SDKHelper::UserDefaultKeys;

/// The server expects the key "dmod" here; in the user record it is "dmob".
Json reportBody(const std::optional<std::string>& idfa) {
  using Device = SDKHelper::Device;
  return {{"aid", orNull(SDKManager::shared().appId())},
          {"eid", orNull(SDKManager::shared().userId())},
          {"sdkv", Kelvara::sdkVersion()},
          {"appv", SDKHelper::App::appVersion()},
          {"pl", Device::platform()},
          {"osv", Device::osVersion()},
          {"dbra", Device::deviceBrand()},
          {"dmod", Device::deviceModel()},
          {"conn", Device::connectionType()},
          {"gsm", Device::carrierName()},
          {"lcl", Device::country()},
          {"lng", Device::language()},
          {"tzn", Device::timezone()},
          {"idfa", idfa.value_or("")}};
}

}  // namespace

ReferralTracking& ReferralTracking::shared() { return Runtime::current().get<ReferralTracking>(); }

ReferralTracking::ReferralTracking()
    : state_(State{.lastUploadedIDFA = userDefaults().get<std::string>(Keys::lastUploadedIDFA),
                   .isTrackCampaignNeeded =
                       userDefaults().get<bool>(Keys::isTrackCampaignNeeded).value_or(false),
                   .isFirstCampaignTracked =
                       userDefaults().get<bool>(Keys::isFirstCampaignTracked).value_or(false)}) {}

void ReferralTracking::trackCampaign() {
  const auto idfa = PrivacyManager::shared().idfaWithPrivacy();
  if (!isReportDue(idfa)) return;
  RequestManager::trackCampaign(reportBody(idfa), [this, idfa](auto response) {
    if (response)
      succeed(*response, idfa);
    else
      fail(response.error());
  });
}

bool ReferralTracking::isReportDue(const std::optional<std::string>& idfa) const {
  return state_.with([&](const State& state) {
    if (!state.isFirstCampaignTracked) return true;
    if (!state.isTrackCampaignNeeded) return false;
    if (!idfa) return false;
    return idfa != state.lastUploadedIDFA;
  });
}

void ReferralTracking::succeed(const TrackCampaignResponse& response,
                               std::optional<std::string> idfa) {
  Log::d("Track campaign success!.");
  setFirstCampaignTracked(true);
  setLastUploadedIDFA(std::move(idfa));
  if (response.planId.value_or("").empty()) setTrackCampaignNeeded(true);
}

void ReferralTracking::fail(const Error& error) {
  Log::e("Track campaign error: " + std::to_string(error.code()));
  if (error.code() != SDKHelper::GenericErrorCodes::badRequest) return;
  setFirstCampaignTracked(true);
  setTrackCampaignNeeded(false);
}

void ReferralTracking::setLastUploadedIDFA(std::optional<std::string> idfa) {
  state_.with([&](State& state) {
    if (idfa)
      userDefaults().set(Keys::lastUploadedIDFA, *idfa);
    else
      userDefaults().remove(Keys::lastUploadedIDFA);
    state.lastUploadedIDFA = std::move(idfa);
  });
}

void ReferralTracking::setTrackCampaignNeeded(bool isNeeded) {
  state_.with([&](State& state) {
    state.isTrackCampaignNeeded = isNeeded;
    userDefaults().set(Keys::isTrackCampaignNeeded, isNeeded);
  });
}

void ReferralTracking::setFirstCampaignTracked(bool isTracked) {
  state_.with([&](State& state) {
    state.isFirstCampaignTracked = isTracked;
    userDefaults().set(Keys::isFirstCampaignTracked, isTracked);
  });
}

std::optional<std::string> ReferralTracking::lastUploadedIDFA() const {
  return state_.with([](const State& state) { return state.lastUploadedIDFA; });
}

bool ReferralTracking::isTrackCampaignNeeded() const {
  return state_.with([](const State& state) { return state.isTrackCampaignNeeded; });
}

bool ReferralTracking::isFirstCampaignTracked() const {
  return state_.with([](const State& state) { return state.isFirstCampaignTracked; });
}

}  // namespace kva
