#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

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
    std::string encoded() const;
  };

  /// The members in the order of their first impression. Caches the encoded form of each, so that
  /// storing encodes only changed members.
  class Members {
   public:
    /// One impression at `time`. Without a plan, only corrects and drops members.
    struct Change {
      std::optional<std::string> planId;
      double time;
    };
    static Members decode(const Bytes& bytes);
    Bytes encoded() const;
    /// Sets windows that begin after the impression to begin at its time, because they were stored
    /// while the clock was ahead. Drops members whose windows are over. Then counts the impression.
    void apply(const Change& change);
    /// Null if there is none.
    const FrequencyCappingMember* find(const std::string& planId) const;

   private:
    void append(FrequencyCappingMember member);
    void endFuture(double time);
    void dropExpired(double time);

    struct Entry {
      FrequencyCappingMember member;
      std::string encoded;
    };
    std::vector<Entry> entries_;
    std::unordered_map<std::string, std::size_t> indexOfPlan_;
  };

  struct State {
    SharedSetting<Members> fcMembers;
    std::map<std::string, double> lastNofills;  ///< on the monotonic clock, by ad unit
    std::unordered_set<std::string> lastUsedBidResponses;
  };

  Guarded<State> state_;
};

}  // namespace kva
