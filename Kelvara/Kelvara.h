#pragma once

#include <functional>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>
#include <Kelvara/KVAErrorCodes.h>

namespace kva {

/// The entry point of the SDK. Create a `gtk::Host` (<Kelvara/KelvaraGtk.h>) before the first call;
/// without one, every call aborts the process with a message. Thread-safe.
///
/// Set the user and privacy before `start`, so that the first user record has them.
///
/// Completions and delegates of the SDK must not throw. The destructor of `gtk::Host` waits for the
/// network session's thread, so while it runs they must not wait for the main thread.
struct KVA_EXPORT Kelvara {
  static std::string sdkVersion();
  /// True once a start has succeeded: the host's call or a later automatic start.
  static bool isInitialized();
  /// Starts the SDK with the application id (a UUID). `completion` runs exactly once:
  ///   - before `start` returns, with `KVAErrorCodes::invalidAppId` or `noInternetConnection` if
  ///     the start is refused, without an error if the SDK is starting or started;
  ///   - otherwise on the network session's thread.
  /// After a failure the SDK starts automatically when the network is back. That start calls no
  /// completion; poll `isInitialized`.
  static void start(std::string appId, std::function<void(std::optional<Error>)> completion);
  /// The host's identifier of the user. A later call replaces it.
  static void setUserId(std::string userId);
  /// Without consent the advertising identifier never leaves the device.
  static void setUserConsent(bool granted);
  /// Only recorded: it is not sent and restricts nothing. To keep a child's identifier on the
  /// device, do not give consent.
  static void setUserChild(bool isChild);
  /// GDPR and CCPA exclude each other. The one last set to true applies.
  static void setSubjectToGDPR(bool isSubject);
  static void setSubjectToCCPA(bool isSubject);
};

}  // namespace kva
