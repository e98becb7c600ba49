#include <Kelvara/ads/AdType.h>

namespace kva {

std::string_view rawValue(AdType type) {
  switch (type) {
    case AdType::banner:
      return "banner";
    case AdType::native:
      return "native";
    case AdType::interstitial:
      return "interstitial";
    case AdType::rewarded:
      return "rewarded";
  }
  return {};
}

std::optional<AdType> adTypeFromRawValue(std::string_view text) {
  for (AdType type : {AdType::banner, AdType::native, AdType::interstitial, AdType::rewarded})
    if (rawValue(type) == text) return type;
  return std::nullopt;
}

}  // namespace kva
