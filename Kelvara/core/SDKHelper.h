#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <Kelvara/Error.h>
#include <Kelvara/KVAErrorCodes.h>
#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// Parses a JSON object of strings; absent for any other value. Text that is not JSON also logs an
/// error.
std::optional<std::map<std::string, std::string>> convertToDictionary(std::string_view text);

/// Facts and constants that many parts of the SDK share.
struct SDKHelper {
  struct Device;    // <Kelvara/user/Device.h>
  struct Settings;  // <Kelvara/core/Settings.h>

  /// The keys of all values that the SDK stores in the host's user defaults. Stored data depends on
  /// their spelling, so "Refferal" is intended.
  struct UserDefaultKeys {
    static constexpr const char* userId = "kKVAUserDefaultKeyUserId";
    static constexpr const char* user = "kKVAUserDefaultKeyUser";
    static constexpr const char* frequencyCappingMembers = "kKVAUserDefaultFrequencyCappingMembers";
    static constexpr const char* templates = "kKVAUserDefaultTemplateManagerTemplates";
    static constexpr const char* reports = "kKVAUserDefaultReportManagerReports";
    static constexpr const char* reportsForUpload = "kKVAUserDefaultReportManagerReportsForUpload";
    static constexpr const char* lastReportUploadedAt =
        "kKVAUserDefaultReportManagerLastReportUploadedAt";
    static constexpr const char* deltaTime = "kKVAUserDefaultAnalyticsDeltaTime";
    static constexpr const char* lastUploadedIDFA = "kKVAUserDefaultRefferalLastUploadedIDFA";
    static constexpr const char* isTrackCampaignNeeded =
        "kKVAUserDefaultRefferalIsTrackCampaignNeeded";
    static constexpr const char* isFirstCampaignTracked =
        "kKVAUserDefaultRefferalIsFirstCampaignTracked";
  };

  /// The host application.
  struct App {
    static std::string appVersion();  ///< "" if unknown
    static std::string bundleId();    ///< "" if unknown
    /// Hints on the main thread that an ad is expected soon. Thread-safe.
    static void expectAd();
  };

  struct MRAID {
    /// The MRAID script of the resource bundle. The first call reads it, and the runtime caches the
    /// result. Absent if there is no such file or it is not UTF-8.
    static std::optional<std::string> mraidJS();
  };

  /// Creates errors with the domain "Kelvara".
  struct Error {
    static kva::Error error(KVAErrorCodes code, std::string message = "Error");
    static kva::Error error(std::int64_t code, std::string message = "Error");
  };

  struct GenericErrorCodes {
    static constexpr std::int64_t noInternet = 1009;
    static constexpr std::int64_t userNotFound = 404;
    static constexpr std::int64_t badRequest = 400;
    static constexpr std::int64_t internalServerError = 500;
  };
};

/// The host's user defaults, in which the SDK stores the values of `UserDefaultKeys`.
UserDefaults& userDefaults();

inline constexpr const char* kvaBundleName = "KelvaraResources";

/// The possible paths of the SDK's resource bundle, in the order of search: in the host's main
/// bundle, in the SDK's data folder.
std::vector<std::filesystem::path> kvaBundlePaths();
/// The first of these paths that exists.
std::optional<std::filesystem::path> kvaBundle();
/// The path of the MRAID script in that bundle, if the file exists.
std::optional<std::filesystem::path> mraidJSFile();

}  // namespace kva
