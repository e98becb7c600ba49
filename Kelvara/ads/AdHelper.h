#pragma once

#include <optional>
#include <string>

#include <Kelvara/ads/Ad.h>

namespace kva {

/// Makes the document that is shown out of a template and an ad.
struct AdHelper {
  /// Fills the placeholders of `html` for the device's orientation and language of this moment.
  /// Values go in as they are, unescaped. A placeholder of a file that the ad does not have stays:
  /// the template's script copes with it.
  static std::string finalize(std::string html, const Ad& ad);

  /// The text for the language that the user prefers most.
  static std::optional<std::string> localizedString(const LocalizedTexts& dictionary);
};

}  // namespace kva
