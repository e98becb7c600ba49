#include "platform/linux/LinuxDevice.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <utility>

#include <sys/utsname.h>

namespace kva {
namespace {

utsname systemName() {
  utsname name{};
  uname(&name);
  return name;
}

std::string installedVersion() {
  const GStringPtr version(g_get_os_info(G_OS_INFO_KEY_VERSION_ID));
  return version ? version.get() : systemName().release;
}

/// Whether a connector, such as "card0-eDP-1", belongs to a built-in panel.
bool isBuiltIn(const std::string& connector) {
  constexpr std::array kKinds{"-eDP-", "-LVDS-", "-DSI-", "-DPI-"};
  return std::ranges::any_of(kKinds,
                             [&](auto* kind) { return connector.find(kind) != std::string::npos; });
}

}  // namespace

LinuxDevice::LinuxDevice(std::shared_ptr<NotificationCenter> center, SystemBus& bus,
                         const std::filesystem::path& displays)
    : center_(std::move(center)),
      systemVersion_(installedVersion()),
      panel_(builtInPanel(displays)),
      sensor_(bus, {"net.hadess.SensorProxy", "/net/hadess/SensorProxy", "net.hadess.SensorProxy"},
              [this] { sensorChanged(); }) {}

std::string LinuxDevice::machine() const { return systemName().machine; }

// The first mode is the panel's preferred one. Rotating the picture does not change it.
LinuxDevice::Panel LinuxDevice::builtInPanel(const std::filesystem::path& displays) {
  std::error_code error;
  for (const auto& connector : std::filesystem::directory_iterator(displays, error)) {
    if (!isBuiltIn(connector.path().filename())) continue;
    int width = 0, height = 0;
    char by = 0;
    std::ifstream modes(connector.path() / "modes");
    if (modes >> width >> by >> height) return width > height ? Panel::landscape : Panel::portrait;
  }
  return Panel::unknown;
}

// The service names the edge that points up; "normal" is the panel's own top. When the right edge
// points up, the panel's top is on the left.
DeviceOrientation LinuxDevice::orientationOf(std::string_view upperEdge) const {
  using enum DeviceOrientation;
  constexpr std::array kEdges{"normal", "right-up", "bottom-up", "left-up"};
  constexpr std::array kTurns{portrait, landscapeLeft, portraitUpsideDown, landscapeRight};
  const auto edge = std::ranges::find(kEdges, upperEdge);
  if (edge == kEdges.end() || panel_ == Panel::unknown) return unknown;
  const auto turns = static_cast<std::size_t>(edge - kEdges.begin());
  return kTurns[(turns + (panel_ == Panel::landscape ? 1 : 0)) % kTurns.size()];
}

DeviceOrientation LinuxDevice::Orientations::current() const {
  return sensor == DeviceOrientation::unknown ? window : sensor;
}

DeviceOrientation LinuxDevice::orientation() const { return orientations_.get().current(); }

void LinuxDevice::setWindowOrientation(DeviceOrientation orientation) {
  update(&Orientations::window, orientation);
}

void LinuxDevice::sensorChanged() {
  // The service measures only while a client claims the sensor, and loses claims when it exits.
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
    // The first known orientation is not a change.
    return before != DeviceOrientation::unknown && now.current() != before;
  });
  if (changed) center_->post(kOrientationDidChangeNotification, this);
}

}  // namespace kva
