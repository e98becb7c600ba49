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

/// The runtime settings of an application.
struct ApplicationSetting {
  std::int64_t statsSendPeriod = 4;  ///< of the report upload
  std::int64_t sleepOnNofill = 60;   ///< seconds
  bool isSoundMuted = true;

  /// A member that is missing or mistyped keeps its default. The server counts both periods in
  /// hundredths, so a record that was encoded does not decode to itself.
  static Result<ApplicationSetting> decode(const Json& json);
  /// Writes the periods as they are held.
  Json toJson() const;
  bool operator==(const ApplicationSetting&) const = default;
};

/// What the server tells at start-up about the host application.
struct Application {
  std::string applicationId;
  std::vector<Tester> testers;
  std::vector<AdType> blockedAdTypes;
  std::vector<std::string> blockedAds;
  std::map<std::string, std::int64_t> templateVersions;  ///< by template name
  bool hasCampaign = false;
  URL privacyPolicy;
  ApplicationSetting setting;

  /// Only the id and the privacy policy are required; whatever else is missing or mistyped, one
  /// element of a list included, counts as not there.
  static Result<Application> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Application&) const = default;
};

}  // namespace kva
