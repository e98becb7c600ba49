#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// What happened to a shown ad, as its report tells it.
struct BidReportAction {
  enum Kind { videoQuarter, impression, failToShow, click, complete, dismiss };
  Kind kind;
  std::int64_t quarter = 0;  ///< of `videoQuarter`: the one that was reached

  std::string description() const;
};

/// What happened to the ad of one bid. Flags only ever become true; the last quarter holds.
struct BidReport {
  std::string bidId;
  double createdAt = 0;           ///< seconds since 1970, device clock
  std::int64_t impressionAt = 0;  ///< milliseconds since 1970, server clock
  bool isShown = false;
  bool isFailToShow = false;
  bool isClicked = false;
  bool isDismissed = false;
  bool isCompleted = false;
  std::int64_t quarter = 0;

  /// `serverTime` counts for an impression.
  void apply(const BidReportAction& action, std::int64_t serverTime);
  /// Adds what another process reports of the same ad.
  void join(const BidReport& other);
  /// Nothing more will happen to the ad.
  bool isFinished() const { return isDismissed || isFailToShow; }

  /// The stored form.
  static Result<BidReport> decode(const Json& json);
  Json toJson() const;
  /// The upload form.
  Json dictionaryValue() const;
  bool operator==(const BidReport&) const = default;
};

}  // namespace kva
