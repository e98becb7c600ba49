#pragma once

#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/user/TrackCampaignResponse.h>

namespace kva {

/// Reports the installation to a campaign for attribution, and stores the outcome across launches.
/// Any thread.
class ReferralTracking {
 public:
  static ReferralTracking& shared();

  ReferralTracking();

  /// Sends a report if one is due. The first is always due. A later one is due if the server has
  /// not attributed the installation and there is an advertising identifier that it has not
  /// received.
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
  // Each setter also stores the value.
  void setLastUploadedIDFA(std::optional<std::string> idfa);
  void setTrackCampaignNeeded(bool isNeeded);
  void setFirstCampaignTracked(bool isTracked);

  Guarded<State> state_;
};

}  // namespace kva
