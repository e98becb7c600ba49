#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// This installation on this device, as the server knows it. A value: what cannot be had is "".
struct User {
  std::string applicationId;
  std::string sdkVersion;
  std::string appVersion;
  std::string platform;
  std::string osVersion;
  std::string bundleId;
  std::string idfa;  ///< as privacy allowed it when the record was made
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

  /// The record of this moment. Any thread.
  User();

  /// What goes to the server, under its short keys. The advertising identifier is not the record's
  /// own but the one that privacy allows now.
  Json dictionaryValue() const;

  /// Keeps the record in the user defaults as the last one that the server accepted.
  void save() const;
  /// The record that was saved last; nothing when there is none or it cannot be read.
  static std::optional<User> lastUploaded();

  /// The form in which the record is kept: every field is required, under its own name.
  static Result<User> decode(const Json& json);
  Json toJson() const;

  bool operator==(const User&) const = default;

 private:
  struct Blank {};
  explicit User(Blank) {}
};

}  // namespace kva
