#pragma once

#include <memory>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/NotificationCenter.h>

#include "platform/linux/SystemBus.h"

namespace kva {

/// This machine. Its orientation is what the sensor service says; without one, or when it does not
/// know, what the window's shape says. Made and destroyed on the main thread.
class LinuxDevice final : public DeviceInfo {
 public:
  LinuxDevice(std::shared_ptr<NotificationCenter> center, SystemBus& bus);

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
  void sensorChanged();
  void update(DeviceOrientation Orientations::*source, DeviceOrientation orientation);

  std::shared_ptr<NotificationCenter> center_;
  Guarded<Orientations> orientations_;
  bool claimed_ = false;
  BusObject sensor_;  // last: it calls back into the rest
};

}  // namespace kva
