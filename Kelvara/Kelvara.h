#pragma once

#include <functional>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>
#include <Kelvara/KVAErrorCodes.h>

namespace kva {

/// The SDK's front door. On Linux make a `gtk::Host` first (<Kelvara/KelvaraGtk.h>); without one,
/// every call stops the process with a message that says so.
///
/// Thread-safe. Set user and privacy before `start` to have them in the first user record.
///
/// What holds for every completion and every delegate of the SDK: it must not throw, and while the
/// `gtk::Host` is destroyed, which waits for the network session's thread, it must not wait for the
/// main thread.
struct KVA_EXPORT Kelvara {
  static std::string sdkVersion();
  /// True once a start has succeeded, whether the host's own or a later automatic one.
  static bool isInitialized();
  /// Starts the SDK with the application id (a UUID). `completion` runs exactly once: before
  /// `start` returns when it is refused (error code 14, an invalid id; 4, no network) or when the
  /// SDK is already starting or started (no error), otherwise on the network session's thread.
  /// After a failure the SDK starts again by itself when the network comes back; only
  /// `isInitialized` shows that.
  static void start(std::string appId, std::function<void(std::optional<Error>)> completion);
  /// The host's own name for the user; the last one wins.
  static void setUserId(std::string userId);
  /// Without consent the advertising identifier never leaves the device.
  static void setUserConsent(bool granted);
  /// Only recorded: it is sent nowhere and restricts nothing. To keep a child's identifier on the
  /// device, do not give consent.
  static void setUserChild(bool isChild);
  /// GDPR and CCPA exclude each other: the last true one holds.
  static void setSubjectToGDPR(bool isSubject);
  static void setSubjectToCCPA(bool isSubject);
};

}  // namespace kva
