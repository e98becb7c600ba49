#pragma once

#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/user/TrackCampaignResponse.h>

namespace kva {

/// Reports the installation to a campaign, so that it can be attributed, and remembers the outcome
/// across launches. Any thread.
class ReferralTracking {
 public:
  static ReferralTracking& shared();

  ReferralTracking();

  /// Sends one report if one is due: the first always, a later one only while the server has not
  /// attributed the installation and there is an advertising identifier that it has not had.
  void trackCampaign();

  std::optional<std::string> lastUploadedIDFA() const;
  bool isTrackCampaignNeeded() const;
  bool isFirstCampaignTracked() const;

 private:
  struct State {
    std::optional<std::string> lastUploadedIDFA;
    bool isTrackCampaignNeeded = false;
    bool isFirstCampaignTracked = false;
  };
  bool isReportDue(const std::optional<std::string>& idfa) const;
  void succeed(const TrackCampaignResponse& response, std::optional<std::string> idfa);
  void fail(const Error& error);
  // Each keeps its value across launches.
  void setLastUploadedIDFA(std::optional<std::string> idfa);
  void setTrackCampaignNeeded(bool isNeeded);
  void setFirstCampaignTracked(bool isTracked);

  Guarded<State> state_;
};

}  // namespace kva
