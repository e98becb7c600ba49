#include <Kelvara/user/TrackCampaignResponse.h>

#include <utility>

#include <nlohmann/json.hpp>

namespace kva {

Result<TrackCampaignResponse> TrackCampaignResponse::decode(const Json& json) {
  Reader in(json);
  TrackCampaignResponse response{.planId = in.optional<std::string>("plan")};
  return in.finish(std::move(response));
}

}  // namespace kva
