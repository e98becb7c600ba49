#include "platform/linux/LinuxDevice.h"

#include <utility>

#include <sys/utsname.h>

namespace kva {
namespace {

utsname systemName() {
  utsname name{};
  uname(&name);
  return name;
}

/// The service names the edge that points up; a device whose right edge points up lies with its
/// top to the left.
DeviceOrientation orientationOf(std::string_view upperEdge) {
  if (upperEdge == "normal") return DeviceOrientation::portrait;
  if (upperEdge == "bottom-up") return DeviceOrientation::portraitUpsideDown;
  if (upperEdge == "right-up") return DeviceOrientation::landscapeLeft;
  if (upperEdge == "left-up") return DeviceOrientation::landscapeRight;
  return DeviceOrientation::unknown;
}

}  // namespace

LinuxDevice::LinuxDevice(std::shared_ptr<NotificationCenter> center, SystemBus& bus)
    : center_(std::move(center)),
      sensor_(bus, {"net.hadess.SensorProxy", "/net/hadess/SensorProxy", "net.hadess.SensorProxy"},
              [this] { sensorChanged(); }) {}

std::string LinuxDevice::systemVersion() const {
  const GStringPtr version(g_get_os_info(G_OS_INFO_KEY_VERSION_ID));
  return version ? version.get() : systemName().release;
}

std::string LinuxDevice::machine() const { return systemName().machine; }

DeviceOrientation LinuxDevice::Orientations::current() const {
  return sensor == DeviceOrientation::unknown ? window : sensor;
}

DeviceOrientation LinuxDevice::orientation() const { return orientations_.get().current(); }

void LinuxDevice::setWindowOrientation(DeviceOrientation orientation) {
  update(&Orientations::window, orientation);
}

void LinuxDevice::sensorChanged() {
  // The service measures only for those who claim the sensor, and forgets them when it ends.
  const bool present = sensor_.isPresent();
  if (present && !claimed_) sensor_.call("ClaimAccelerometer");
  claimed_ = present;
  update(&Orientations::sensor,
         orientationOf(sensor_.text("AccelerometerOrientation").value_or("")));
}

void LinuxDevice::update(DeviceOrientation Orientations::*source, DeviceOrientation orientation) {
  const bool changed = orientations_.with([&](Orientations& now) {
    const auto before = now.current();
    now.*source = orientation;
    // What becomes known for the first time has not turned.
    return before != DeviceOrientation::unknown && now.current() != before;
  });
  if (changed) center_->post(kOrientationDidChangeNotification, this);
}

}  // namespace kva
