#pragma once

#include <filesystem>
#include <string>

#include <Kelvara/platform/Clock.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/Locale.h>
#include <Kelvara/platform/MainBundle.h>

namespace kva {

/// The file that this code was loaded from: libkelvara.so, or a program that is linked with the
/// static libraries. Empty if it is unknown.
std::filesystem::path libraryFile();

/// The system's clock and GLib's calendar.
class LinuxClock final : public Clock {
 public:
  double now() const override;
  double monotonicNow() const override;
  double addingDays(double time, int days) const override;
  double addingHours(double time, int hours) const override;
};

/// Reads LANGUAGE, LC_ALL, LC_MESSAGES and LANG. "C" and "POSIX" name no language; without any
/// language, the preferred one is English.
class LinuxLocale final : public Locale {
 public:
  std::vector<std::string> preferredLanguages() const override;
  std::optional<std::string> countryCode() const override;
  std::optional<std::string> languageCode() const override;
  std::optional<std::string> timeZoneAbbreviation() const override;
};

/// The host application, as its options describe it.
class HostBundle final : public MainBundle {
 public:
  /// If `folder` is empty, the folder of the executable is used. Empty texts are reported as
  /// absent. The second resource folder is the data folder that the library was built or installed
  /// with.
  HostBundle(std::filesystem::path folder, std::string identifier, std::string version);
  std::vector<std::filesystem::path> resourceFolders() const override;
  std::optional<std::string> bundleIdentifier() const override;
  std::optional<std::string> infoString(const std::string& key) const override;

 private:
  std::filesystem::path folder_;
  std::string identifier_, version_;
};

/// The advertising identifier that the host supplies. If it is not a UUID, the identifier is all
/// zeros (withheld).
class HostIdentifiers final : public IdentifierManager {
 public:
  HostIdentifiers(const std::string& advertisingIdentifier, bool trackingAuthorized);
  std::string advertisingIdentifier() const override { return identifier_; }
  std::optional<AuthorizationStatus> trackingAuthorizationStatus() const override;
  bool isAdvertisingTrackingEnabled() const override { return authorized_; }

 private:
  std::string identifier_;
  bool authorized_;
};
}  // namespace kva
