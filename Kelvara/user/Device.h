#pragma once

#include <string>

#include <Kelvara/core/SDKHelper.h>

namespace kva {

/// Facts of the device as the server wants them, asked afresh on every call. Any thread. What the
/// platform cannot tell is "".
struct SDKHelper::Device {
  static std::string platform();
  static std::string osVersion();
  static std::string deviceBrand();
  static std::string deviceModel();
  /// "2g", "3g" or "4g"; "3g" for everything that is not recognised, no cellular service included.
  static std::string connectionType();
  static std::string carrierName();
  static std::string country();
  static std::string language();
  /// The time zone's abbreviation for the present moment.
  static std::string timezone();
};

}  // namespace kva
