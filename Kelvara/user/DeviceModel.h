#pragma once

#include <string>
#include <string_view>

namespace kva {

/// The marketing name of a hardware identifier, or the identifier itself when it has none. A
/// simulator ("i386", "x86_64") is named after the device in the environment variable
/// SIMULATOR_MODEL_IDENTIFIER.
std::string mapToDevice(std::string_view identifier);

/// The name of the hardware that the process runs on. Kept by the runtime, which makes it once.
class DeviceModel {
 public:
  DeviceModel();
  static const std::string& modelName();

 private:
  const std::string name_;
};

}  // namespace kva
