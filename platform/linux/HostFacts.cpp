#include "platform/linux/HostFacts.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <utility>

#include <dlfcn.h>

#include "platform/linux/GlibSupport.h"

namespace kva {
namespace {

std::optional<std::string> unlessEmpty(std::string text) {
  if (text.empty()) return std::nullopt;
  return text;
}

/// The parts of "de_AT.UTF-8@euro". The language of "C" and "POSIX" is empty.
struct LocaleName {
  std::string language, country;

  explicit LocaleName(std::string_view name) {
    name = name.substr(0, name.find_first_of(".@"));
    if (name == "C" || name == "POSIX") return;
    const auto underscore = name.find('_');
    language = name.substr(0, underscore);
    if (underscore != name.npos) country = name.substr(underscore + 1);
  }
  std::string tag() const { return country.empty() ? language : language + "-" + country; }
};

/// The locale of messages: the first variable that is set.
LocaleName currentLocale() {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"})
    if (const char* value = std::getenv(variable); value && *value) return LocaleName(value);
  return LocaleName("C");
}

}  // namespace

std::filesystem::path libraryFile() {
  static const char inThisLibrary = 0;
  Dl_info found{};
  std::error_code unreadable;
  if (dladdr(&inThisLibrary, &found) == 0) return {};
  return std::filesystem::canonical(found.dli_fname, unreadable);
}

double LinuxClock::now() const {
  using Seconds = std::chrono::duration<double>;
  return Seconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

double LinuxClock::monotonicNow() const {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double LinuxClock::addingDays(double time, int days) const {
  constexpr double secondsOfDay = 86400;
  const double whole = std::floor(time);
  // GLib's calendar ends with the year 9999. Beyond it, and for NaN, a day has 24 hours.
  if (std::isfinite(time) && std::abs(whole) < 1e12) {
    const GDateTimePtr from(g_date_time_new_from_unix_local(static_cast<gint64>(whole)));
    const GDateTimePtr to(from ? g_date_time_add_days(from.get(), days) : nullptr);
    if (to) return static_cast<double>(g_date_time_to_unix(to.get())) + (time - whole);
  }
  return time + days * secondsOfDay;
}

double LinuxClock::addingHours(double time, int hours) const { return time + hours * 3600.0; }

std::vector<std::string> LinuxLocale::preferredLanguages() const {
  std::vector<std::string> tags;
  for (auto name = g_get_language_names(); *name; ++name) {
    const LocaleName parts(*name);
    const auto tag = parts.tag();
    if (!parts.language.empty() && std::ranges::find(tags, tag) == tags.end()) tags.push_back(tag);
  }
  if (tags.empty()) tags.push_back("en");
  return tags;
}

std::optional<std::string> LinuxLocale::countryCode() const {
  return unlessEmpty(currentLocale().country);
}

std::optional<std::string> LinuxLocale::languageCode() const {
  return unlessEmpty(currentLocale().language);
}

std::optional<std::string> LinuxLocale::timeZoneAbbreviation() const {
  const GDateTimePtr now(g_date_time_new_now_local());
  return unlessEmpty(now ? g_date_time_get_timezone_abbreviation(now.get()) : "");
}

HostBundle::HostBundle(std::filesystem::path folder, std::string identifier, std::string version)
    : folder_(std::move(folder)), identifier_(std::move(identifier)), version_(std::move(version)) {
  std::error_code unreadable;
  if (folder_.empty())
    folder_ = std::filesystem::read_symlink("/proc/self/exe", unreadable).parent_path();
}

std::vector<std::filesystem::path> HostBundle::resourceFolders() const {
  std::vector folders{folder_};
  if (const auto library = libraryFile(); !library.empty())
    folders.push_back((library.parent_path() / KELVARA_DATA_FROM_LIBRARY).lexically_normal());
  return folders;
}

std::optional<std::string> HostBundle::bundleIdentifier() const { return unlessEmpty(identifier_); }

std::optional<std::string> HostBundle::infoString(const std::string& key) const {
  if (key == "CFBundleIdentifier") return unlessEmpty(identifier_);
  if (key == "CFBundleShortVersionString") return unlessEmpty(version_);
  return std::nullopt;
}

HostIdentifiers::HostIdentifiers(const std::string& advertisingIdentifier, bool trackingAuthorized)
    : identifier_("00000000-0000-0000-0000-000000000000"), authorized_(trackingAuthorized) {
  if (!g_uuid_string_is_valid(advertisingIdentifier.c_str())) return;
  identifier_ = advertisingIdentifier;
  std::ranges::transform(identifier_, identifier_.begin(), g_ascii_toupper);
}

std::optional<IdentifierManager::AuthorizationStatus> HostIdentifiers::trackingAuthorizationStatus()
    const {
  return authorized_ ? AuthorizationStatus::authorized : AuthorizationStatus::notDetermined;
}

}  // namespace kva
