#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// One pricing plan of a bid.
struct Plan {
  std::string planId;
  std::int64_t frequencyCapDaily = 0;   ///< impressions
  std::int64_t frequencyCapHourly = 0;  ///< impressions
  std::int64_t ecpm = 0;                ///< thousandths of the price unit

  /// In the unit of bid responses.
  double price() const { return static_cast<double>(ecpm) / 1000.0; }

  static Result<Plan> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Plan&) const = default;
};

}  // namespace kva
