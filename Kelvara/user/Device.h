#pragma once

#include <string>

#include <Kelvara/core/SDKHelper.h>

namespace kva {

/// Properties of the device in the form that the server expects. Each call reads the current value;
/// an unknown one is "". Any thread.
struct SDKHelper::Device {
  static std::string platform();
  static std::string osVersion();
  static std::string deviceBrand();
  static std::string deviceModel();
  /// "2g", "3g" or "4g"; "3g" also for an unknown technology and without cellular service.
  static std::string connectionType();
  static std::string carrierName();
  static std::string country();
  static std::string language();
  /// The abbreviation of the current time zone.
  static std::string timezone();
};

}  // namespace kva
