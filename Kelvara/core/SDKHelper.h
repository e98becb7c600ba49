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

namespace kva {

/// The JSON object of strings that the text holds; nothing for any other value (and, for text that
/// is no JSON, an error line in the log).
std::optional<std::map<std::string, std::string>> convertToDictionary(std::string_view text);

/// Small facts and constants that many parts of the SDK share.
struct SDKHelper {
  struct Device;    // <Kelvara/user/Device.h>
  struct Settings;  // <Kelvara/core/Settings.h>

  /// The keys of everything that the SDK keeps in the host's user defaults. Stored data is looked
  /// up under these exact texts, "Refferal" included.
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
    static std::string appVersion();  ///< "" when unknown
    static std::string bundleId();    ///< "" when unknown
  };

  struct MRAID {
    /// The page-side script of the resource bundle, read once and kept; absent, and then for the
    /// rest of the runtime's life, when there is no such file or it is not UTF-8.
    static std::optional<std::string> mraidJS();
  };

  /// Makes the SDK's own errors.
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

inline constexpr const char* kvaBundleName = "KelvaraResources";

/// Where the SDK's resource bundle may be: in the host's main bundle, else in the SDK's own data.
std::vector<std::filesystem::path> kvaBundlePaths();
/// The first of them that exists.
std::optional<std::filesystem::path> kvaBundle();
/// The MRAID script in it.
std::optional<std::filesystem::path> mraidJSFile();

}  // namespace kva
