#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/NotificationCenter.h>

#include "platform/linux/SystemBus.h"

namespace kva {

/// This machine. Its orientation follows from which edge of the built-in panel points up, as the
/// sensor service reports it, and the panel's own shape. When either is unknown, the shape of the
/// window decides. Made and destroyed on the main thread.
class LinuxDevice final : public DeviceInfo {
 public:
  /// `displays` is where the kernel lists the connectors of displays.
  LinuxDevice(std::shared_ptr<NotificationCenter> center, SystemBus& bus,
              const std::filesystem::path& displays = "/sys/class/drm");

  std::string systemVersion() const override;
  std::string machine() const override;
  DeviceOrientation orientation() const override;

  /// Main thread: the orientation that the shape of the host's window stands for.
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
  const Panel panel_;
  Guarded<Orientations> orientations_;
  bool claimed_ = false;
  BusObject sensor_;  // last: it calls back into the rest
};

}  // namespace kva
