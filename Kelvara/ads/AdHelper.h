#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/ads/Ad.h>

namespace kva {

/// Builds an ad's HTML document from its template.
struct AdHelper {
  /// Fills the placeholders of `html` for the device's current orientation and language. Values are
  /// inserted without escaping, and may contain later placeholders. The placeholder of a missing
  /// file remains; the template's script handles it.
  static std::string finalize(std::string_view html, const Ad& ad);

  /// Returns the text for the user's first preferred language.
  static std::optional<std::string> localizedString(const LocalizedTexts& dictionary);
};

}  // namespace kva
