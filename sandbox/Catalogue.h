#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

/// The sandbox's catalogue: one application, its ad units, the plans that bid for them and the
/// creatives of the plans. Constant, so hosts and tests use the server's identifiers.
namespace kva::sandbox {

inline constexpr std::string_view kApplicationId = "5e0f6c1a-8d0b-4a52-9b3e-6f2f3c9d7a10";

inline constexpr std::string_view kInterstitialAdUnit = "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c201";
inline constexpr std::string_view kRewardedAdUnit = "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c202";
inline constexpr std::string_view kPlayableAdUnit = "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c203";
inline constexpr std::string_view kRewardedWebMAdUnit = "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c204";

inline constexpr std::string_view kImageTemplate = "image-with-end-card";
inline constexpr std::string_view kVideoTemplate = "rewarded-video";
inline constexpr std::string_view kPlayableTemplate = "playable";

/// The advertising identifier of the one test device, and its digest. The server sends only the
/// digest.
inline constexpr std::string_view kTesterIDFA = "7D2B6C51-9A5E-4C1B-9E0C-3B7A1F4D8E62";
inline constexpr std::string_view kTesterDigest = "757492662a5ec91f80d3e972fe02c092";

/// The server attributes a tracked installation with an advertising identifier to this plan.
inline constexpr std::string_view kCampaignPlan = "c4a1d0de-3b52-4d7f-9c8e-77e0b5a10401";

struct Text {
  std::string_view language, text;
};

struct CatalogueFile {
  std::string_view id, path, orientation, type;  ///< path below the server's origin
};

struct CatalogueCreative {
  std::string_view id, adType, contentType;
  std::int64_t countdown;  ///< seconds until the user may close the ad and has earned its reward
  std::string_view title, templateId, clickUrl, icon;
  std::array<Text, 3> callToAction, description;
  std::span<const CatalogueFile> files;
};

struct CataloguePlan {
  std::string_view id;
  std::int64_t ecpm;                 ///< thousandths of the price unit
  std::int64_t capHourly, capDaily;  ///< impressions; 0 is no cap
};

struct CatalogueAdUnit {
  std::string_view id, adType;
  std::span<const CataloguePlan> plans;  ///< dearest first, the order in which they are offered
  const CatalogueCreative* creative;
};

struct CatalogueTemplate {
  std::string_view id, adType, name, file;  ///< file below templates/ of the data folder
  std::int64_t version;
};

std::span<const CatalogueAdUnit> adUnits();
std::span<const CatalogueTemplate> templates();
const CatalogueAdUnit* findAdUnit(std::string_view id);

}  // namespace kva::sandbox
