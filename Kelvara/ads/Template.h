#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <Kelvara/ads/AdType.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// An HTML document with placeholders for the values of an ad. The stored JSON is the server's.
struct Template {
  std::string id;
  AdType adType = AdType::interstitial;
  std::optional<std::string> name;
  std::string htmlData;
  std::int64_t version = 0;

  static Result<Template> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Template&) const = default;
};

}  // namespace kva
