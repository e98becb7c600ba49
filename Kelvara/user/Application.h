#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <Kelvara/ads/AdType.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/base/URL.h>
#include <Kelvara/user/Tester.h>

namespace kva {

/// The server's settings of an application.
struct ApplicationSetting {
  std::int64_t statsSendPeriod = 4;  ///< of the report upload
  std::int64_t sleepOnNofill = 60;   ///< seconds
  bool isSoundMuted = true;

  /// A missing or mistyped member has its default. The server sends both periods in hundredths, and
  /// `toJson` does not, so an encoded record does not decode to itself.
  static Result<ApplicationSetting> decode(const Json& json);
  Json toJson() const;
  bool operator==(const ApplicationSetting&) const = default;
};

/// The server's record of the host application, received at start-up.
struct Application {
  std::string applicationId;
  std::vector<Tester> testers;
  std::vector<AdType> blockedAdTypes;
  std::vector<std::string> blockedAds;
  std::map<std::string, std::int64_t> templateVersions;  ///< by template name
  bool hasCampaign = false;
  URL privacyPolicy;
  ApplicationSetting setting;

  /// Only the id and the privacy policy are required. Any other member has its default if it, or
  /// one element of a list, is missing or mistyped.
  static Result<Application> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Application&) const = default;
};

}  // namespace kva
