#pragma once

#include <optional>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// The reply to a campaign report.
struct TrackCampaignResponse {
  std::optional<std::string> planId;

  static Result<TrackCampaignResponse> decode(const Json& json);
};

}  // namespace kva
