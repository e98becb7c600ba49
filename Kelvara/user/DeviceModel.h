#pragma once

#include <string>
#include <string_view>

namespace kva {

/// The marketing name of a hardware identifier, or the identifier itself if it is unknown. The name
/// of a simulator ("i386", "x86_64") includes the device in the environment variable
/// SIMULATOR_MODEL_IDENTIFIER.
std::string mapToDevice(std::string_view identifier);

/// The name of the hardware that the process runs on. The runtime owns it and computes it once.
class DeviceModel {
 public:
  DeviceModel();
  static const std::string& modelName();

 private:
  const std::string name_;
};

}  // namespace kva
