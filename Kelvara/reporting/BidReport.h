#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// One event of a shown ad.
struct BidReportAction {
  enum Kind { videoQuarter, impression, failToShow, click, complete, dismiss };
  Kind kind;
  std::int64_t quarter = 0;  ///< for `videoQuarter`: the quarter reached, 1 to 4

  std::string description() const;
};

/// The events of one bid's ad. Flags never return to false; the last quarter applied counts.
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

  /// `serverTime` (ms since 1970) is used for an impression only.
  void apply(const BidReportAction& action, std::int64_t serverTime);
  /// Adds the events that another process has stored for the same bid.
  void join(const BidReport& other);
  /// Whether no more events can follow.
  bool isFinished() const { return isDismissed || isFailToShow; }

  /// The stored form.
  static Result<BidReport> decode(const Json& json);
  Json toJson() const;
  /// The upload form.
  Json dictionaryValue() const;
  bool operator==(const BidReport&) const = default;
};

}  // namespace kva
