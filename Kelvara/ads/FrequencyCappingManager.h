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

/// Decides on the device whether an ad may be asked for and which plan may serve it: caps on a
/// plan's impressions, a pause after a no-fill, one ad for one bid. Any thread. The impression
/// counters survive a restart and are stored when a call returns; the rest is in memory alone.
class FrequencyCappingManager {
 public:
  static FrequencyCappingManager& shared();

  FrequencyCappingManager();

  /// Whether the ad unit may be asked for. Refused while the application's `sleepOnNofill` seconds
  /// since its last no-fill have not passed.
  Result<void> shouldRequestAdUnit(const std::string& adUnit) const;
  void trackNofill(const std::string& adUnit);

  /// False while the plan's hourly or daily cap is reached.
  bool shouldShow(const Plan& plan);
  void trackImpression(const std::optional<std::string>& planId);

  /// Whether an ad may be loaded for the bid: the first time, which this uses up.
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

    /// Whether a window began after `time`, because the clock was ahead then.
    bool isAheadOf(double time) const;
    static Result<FrequencyCappingMember> decode(const Json& json);
    std::string encoded() const;
  };

  /// The members in the order of their first impression, each with its stored form at hand, so
  /// that neither finding one nor storing all of them encodes what did not change.
  class Members {
   public:
    /// One impression at `time`; without a plan none is counted.
    struct Change {
      std::optional<std::string> planId;
      double time;
    };
    static Members decode(const Bytes& bytes);
    Bytes encoded() const;
    /// Counts the impression. Times ahead of it, stored while the clock was ahead, count as its
    /// time; members whose windows are over by then are dropped.
    void apply(const Change& change);
    /// Null when there is none.
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
