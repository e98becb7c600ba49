#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/Template.h>
#include <Kelvara/api/Response.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/user/Application.h>
#include <Kelvara/user/TrackCampaignResponse.h>
#include <Kelvara/user/User.h>

namespace kva {

/// The functions of upper managers that the calls need. Owned by the runtime.
struct RequestHooks {
  /// Whether this device uses the sandbox API base. Any thread.
  std::function<bool()> isSandbox;
  /// Called on the session's thread, before the call's completion; not for a registration.
  std::function<void()> userNotFound;
  /// Called on the session's thread, after the call's completion, with milliseconds since 1970.
  std::function<void(std::int64_t)> serverTime;
};

/// The ad server's nine calls. Any thread; completions run on the session's thread.
struct RequestManager {
  /// The current API base: the sandbox's if the server enables it for this test device.
  static std::string baseURL();

  static void startSDK(std::map<std::string, std::optional<std::string>> parameters,
                       Completion<Result<Application>> completion);
  static void register_(const User& user, Completion<Result<RegisterResponse>> completion);
  static void update(const User& user, const std::string& userId,
                     Completion<Result<RegisterResponse>> completion);
  static void loadBid(Json body, Completion<Result<BidLoadResponse>> completion);
  /// Here and in `loadAd`, a price is fatal if it is not finite or exceeds 64 bits of thousandths.
  static void sendLost(const std::string& bidId, double clearingPrice,
                       Completion<Result<bool>> completion);
  static void loadAd(const std::string& appId, const KVABidResponse& bidResponse,
                     double clearingPrice, Completion<Result<Ad>> completion);
  static void getTemplate(const std::string& appId, const std::string& templateId,
                          std::optional<std::int64_t> templateVersion,
                          Completion<Result<Template>> completion);
  static void uploadReports(Json body, Completion<Result<bool>> completion);
  static void trackCampaign(Json body, Completion<Result<TrackCampaignResponse>> completion);
};

}  // namespace kva
