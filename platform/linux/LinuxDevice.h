#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/NotificationCenter.h>

#include "platform/linux/SystemBus.h"

namespace kva {

/// This machine. The sensor service reports which edge of the built-in panel points up; the edge
/// and the panel's shape give the orientation. If either is unknown, the shape of the window gives
/// it. Construct and destroy it on the main thread; getters are thread-safe.
class LinuxDevice final : public DeviceInfo {
 public:
  /// `displays` is the folder in which the kernel lists display connectors.
  LinuxDevice(std::shared_ptr<NotificationCenter> center, SystemBus& bus,
              const std::filesystem::path& displays = "/sys/class/drm");

  std::string systemVersion() const override { return systemVersion_; }
  std::string machine() const override;
  DeviceOrientation orientation() const override;

  /// Sets the orientation that matches the shape of the host's window. Main thread.
  void setWindowOrientation(DeviceOrientation orientation);

 private:
  struct Orientations {
    DeviceOrientation sensor = DeviceOrientation::unknown;
    DeviceOrientation window = DeviceOrientation::unknown;
    DeviceOrientation current() const;
  };
  enum class Panel { unknown, portrait, landscape };
  static Panel builtInPanel(const std::filesystem::path& displays);
  DeviceOrientation orientationOf(std::string_view upperEdge) const;
  void sensorChanged();
  void update(DeviceOrientation Orientations::*source, DeviceOrientation orientation);

  std::shared_ptr<NotificationCenter> center_;
  const std::string systemVersion_;
  const Panel panel_;
  Guarded<Orientations> orientations_;
  bool claimed_ = false;
  BusObject sensor_;  // last: its callback uses the other members
};

}  // namespace kva
