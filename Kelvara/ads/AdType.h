#pragma once

#include <optional>
#include <string_view>

namespace kva {

enum class AdType { banner, native, interstitial, rewarded };

/// The type's name in the server's JSON, such as "rewarded".
std::string_view rawValue(AdType type);
std::optional<AdType> adTypeFromRawValue(std::string_view rawValue);

}  // namespace kva
