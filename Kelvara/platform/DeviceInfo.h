#pragma once

#include <optional>
#include <string>

namespace kva {

/// How the device is held, as its sensor says.
enum class DeviceOrientation {
  unknown,
  portrait,
  portraitUpsideDown,
  landscapeLeft,
  landscapeRight,
  faceUp,
  faceDown,
};

/// Facts of the device. Thread-safe.
class DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;
  virtual std::string systemVersion() const = 0;
  /// The hardware identifier, as uname(2) gives it in `machine`.
  virtual std::string machine() const = 0;
  /// Changes are posted on the main thread as `kOrientationDidChangeNotification`.
  virtual DeviceOrientation orientation() const = 0;
};

/// The cellular service, where there is one. Thread-safe.
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
    other,  ///< newer, or not known
  };
  virtual ~Telephony() = default;
  virtual std::optional<RadioAccessTechnology> currentRadioAccessTechnology() const = 0;
  virtual std::optional<std::string> carrierName() const = 0;
};

/// The advertising identifier and the user's decision about it. Thread-safe.
class IdentifierManager {
 public:
  enum class AuthorizationStatus { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };
  virtual ~IdentifierManager() = default;
  /// 36 characters, upper-case hexadecimal; all zeros when it is withheld.
  virtual std::string advertisingIdentifier() const = 0;
  /// Absent on a platform that knows only the older switch below.
  virtual std::optional<AuthorizationStatus> trackingAuthorizationStatus() const = 0;
  virtual bool isAdvertisingTrackingEnabled() const = 0;
};

}  // namespace kva
