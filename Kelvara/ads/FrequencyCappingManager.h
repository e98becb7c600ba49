#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/core/SharedSetting.h>
#include <Kelvara/user/Plan.h>

namespace kva {

/// Decides on the device whether to request an ad and which plan may serve it. Caps the impressions
/// of a plan, pauses an ad unit after a no-fill and allows one ad per bid. Any thread. Impression
/// counters are stored before a call returns and survive a restart; the rest is in memory only.
class FrequencyCappingManager {
 public:
  static FrequencyCappingManager& shared();

  FrequencyCappingManager();

  /// Fails with `requestTooSoon` during the `sleepOnNofill` seconds after the ad unit's last
  /// no-fill. Fails with `unknown` if there is a no-fill but no application record.
  Result<void> shouldRequestAdUnit(const std::string& adUnit) const;
  void trackNofill(const std::string& adUnit);

  /// False while the plan has reached its hourly or daily cap.
  bool shouldShow(const Plan& plan);
  void trackImpression(const std::optional<std::string>& planId);

  /// True the first time for each bid, and marks the bid as used.
  bool shouldRequestBid(const std::string& bidId);
  void trackBidUsed(const std::string& bidId);

 private:
  /// The impressions of one plan. Times are seconds since 1970; 0 means never.
  struct FrequencyCappingMember {
    std::string planId;
    std::int64_t hourlyImpressionCount = 0;
    std::int64_t dailyImpressionCount = 0;
    double lastHourlyImpressionAt = 0;
    double lastDailyImpressionAt = 0;

    /// Whether a window begins after `time`. The clock was ahead when it was stored.
    bool isAheadOf(double time) const;
    static Result<FrequencyCappingMember> decode(const Json& json);
    /// When both windows are over.
    double end() const;
    std::string encoded() const;
  };

  /// The members in the order of their first impression. The cost of an impression does not depend
  /// on the number of members, except after the clock was set back.
  class Members {
   public:
    /// One impression at `time`. Without a plan, only corrects and drops members.
    struct Change {
      std::optional<std::string> planId;
      double time;
    };
    static constexpr auto kKind = JsonParts::Kind::array;
    static std::optional<Members> decode(const JsonParts& stored);
    JsonParts parts() const;
    std::optional<std::string> part(const std::string& name) const;
    /// Sets windows that begin after the impression to begin at its time, because they were stored
    /// while the clock was ahead. Drops members whose windows are over, at most `kMostDropped` at a
    /// time. Then counts the impression.
    void apply(const Change& change, std::set<std::string>& changed);
    /// Null if there is none.
    const FrequencyCappingMember* find(const std::string& planId) const;

   private:
    static constexpr int kMostDropped = 64;
    using Position = std::uint64_t;
    using ByPosition = std::map<Position, FrequencyCappingMember>;
    /// Adds a member behind the last one, or returns the one of the same plan.
    ByPosition::iterator append(const std::string& planId);
    void insert(Position position, FrequencyCappingMember member);
    /// Replaces the window starts and counts of a member.
    void update(ByPosition::iterator at, const FrequencyCappingMember& member);
    void endFuture(double time, std::set<std::string>& changed);
    void dropExpired(double time, std::set<std::string>& changed);

    ByPosition byPosition_;
    std::unordered_map<std::string, Position> positionOfPlan_;
    std::set<std::pair<double, Position>> byEnd_;  ///< by the time when both windows are over
    double latest_ = 0;                            ///< no window begins later
  };

  struct State {
    SharedSetting<Members> fcMembers;
    std::map<std::string, double> lastNofills;  ///< on the monotonic clock, by ad unit
    std::unordered_set<std::string> lastUsedBidResponses;
  };

  Guarded<State> state_;
};

}  // namespace kva
