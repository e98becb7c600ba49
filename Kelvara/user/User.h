#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// The server's record of this installation and its device. An unknown text is "".
struct User {
  std::string applicationId;
  std::string sdkVersion;
  std::string appVersion;
  std::string platform;
  std::string osVersion;
  std::string bundleId;
  std::string idfa;  ///< if privacy allowed it when the record was made
  std::string deviceBrand;
  std::string deviceModel;
  std::string connectionType;
  std::string gsm;  ///< the carrier
  std::int64_t consent = 0;
  std::int64_t subjectToGDPR = 0;
  std::int64_t subjectToCCPA = 0;
  std::string country;
  std::string language;
  std::string timeZone;

  /// The form that is sent to the server: short keys.
  Json dictionaryValue() const;

  /// The stored form: every field is required, under its own name.
  static Result<User> decode(const Json& json);
  Json toJson() const;

  bool operator==(const User&) const = default;
};

}  // namespace kva
