#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/platform/UserDefaults.h>
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

    /// Windows that began after `now`, while the clock was ahead, begin now: they end like others.
    /// Whether there was one.
    bool endFuture(double now);
    static Result<FrequencyCappingMember> decode(const Json& json);
    std::string encoded() const;
  };

  /// The members in the order of their first use, each with its stored form at hand, so that
  /// neither finding one nor storing all of them encodes what did not change.
  class Members {
   public:
    explicit Members(const std::vector<FrequencyCappingMember>& stored);
    /// Null when there is none.
    const FrequencyCappingMember* find(const std::string& planId) const;
    /// Puts it in the place of the one with its plan, or last.
    void put(const FrequencyCappingMember& member);
    Bytes encoded() const;

   private:
    void append(const FrequencyCappingMember& member);

    struct Entry {
      FrequencyCappingMember member;
      std::string encoded;
    };
    std::vector<Entry> entries_;
    std::unordered_map<std::string, std::size_t> indexOfPlan_;
  };

  struct State {
    Members fcMembers;
    std::map<std::string, double> lastNofills;  ///< on the monotonic clock, by ad unit
    std::unordered_set<std::string> lastUsedBidResponses;
  };

  /// A copy of the plan's member, which is made and stored if it is new.
  FrequencyCappingMember memberFor(const std::string& planId);
  static std::vector<FrequencyCappingMember> deserializeMembers(const UserDefaults& defaults);
  void serializeMembers();

  /// Held while the members are encoded and stored: an older state never overwrites a newer one.
  Guarded<std::shared_ptr<UserDefaults>> store_;
  Guarded<State> state_;
};

}  // namespace kva
