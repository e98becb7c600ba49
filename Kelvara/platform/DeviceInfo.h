#pragma once

#include <optional>
#include <string>

namespace kva {

/// The orientation that the device's sensor reports.
enum class DeviceOrientation {
  unknown,
  portrait,
  portraitUpsideDown,
  landscapeLeft,
  landscapeRight,
  faceUp,
  faceDown,
};

/// Properties of the device. Thread-safe.
class DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;
  virtual std::string systemVersion() const = 0;
  /// The hardware identifier: `machine` of uname(2).
  virtual std::string machine() const = 0;
  /// Changes are posted on the main thread as `kOrientationDidChangeNotification`.
  virtual DeviceOrientation orientation() const = 0;
};

/// The cellular service, if there is one. Thread-safe.
class Telephony {
 public:
  enum class RadioAccessTechnology {
    gprs,
    edge,
    cdma1x,
    wcdma,
    hsdpa,
    hsupa,
    cdmaEVDORev0,
    cdmaEVDORevA,
    cdmaEVDORevB,
    eHRPD,
    lte,
    other,  ///< newer or unknown
  };
  virtual ~Telephony() = default;
  virtual std::optional<RadioAccessTechnology> currentRadioAccessTechnology() const = 0;
  virtual std::optional<std::string> carrierName() const = 0;
};

/// The advertising identifier and the user's decision on tracking. Thread-safe.
class IdentifierManager {
 public:
  enum class AuthorizationStatus { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };
  virtual ~IdentifierManager() = default;
  /// A UUID in upper case (36 characters); all zeros if it is withheld.
  virtual std::string advertisingIdentifier() const = 0;
  /// Absent on a platform that has only the older switch below.
  virtual std::optional<AuthorizationStatus> trackingAuthorizationStatus() const = 0;
  virtual bool isAdvertisingTrackingEnabled() const = 0;
};

}  // namespace kva
