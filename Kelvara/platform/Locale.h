#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kva {

/// The user's language, region and time zone. Thread-safe.
class Locale {
 public:
  virtual ~Locale() = default;
  /// Language tags such as "en-US", the most wanted first.
  virtual std::vector<std::string> preferredLanguages() const = 0;
  virtual std::optional<std::string> countryCode() const = 0;   ///< ISO 3166, such as "TR"
  virtual std::optional<std::string> languageCode() const = 0;  ///< ISO 639, such as "tr"
  /// The current time zone's abbreviation for the present moment, such as "CET".
  virtual std::optional<std::string> timeZoneAbbreviation() const = 0;
};

}  // namespace kva
