#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kva {

/// The user's language, region and time zone. Thread-safe.
class Locale {
 public:
  virtual ~Locale() = default;
  /// Language tags such as "en-US", the preferred one first.
  virtual std::vector<std::string> preferredLanguages() const = 0;
  virtual std::optional<std::string> countryCode() const = 0;   ///< ISO 3166, such as "TR"
  virtual std::optional<std::string> languageCode() const = 0;  ///< ISO 639, such as "tr"
  /// The abbreviation now in use in the device's time zone, such as "CET" or "CEST".
  virtual std::optional<std::string> timeZoneAbbreviation() const = 0;
};

}  // namespace kva
