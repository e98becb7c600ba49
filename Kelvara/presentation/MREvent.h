#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <Kelvara/Geometry.h>

namespace kva {

/// An event that the SDK sends to the page's `mraidbridge` object.
struct MREvent {
  struct SizeChanged {
    Size size;
  };
  struct ScreenSize {
    Size size;
  };
  struct CurrentPosition {
    Rect rect;
  };
  struct DefaultPosition {
    Rect rect;
  };
  struct MaxSize {
    Size size;
  };
  struct Viewable {
    bool viewable;
  };
  struct VideoMute {
    bool muted;
  };
  struct OrientationChange {
    std::int64_t degrees;
  };
  struct Config {
    std::vector<std::string> features;  ///< such as "sms: false"
    std::string state;
  };
  struct CommandComplete {
    std::string command;
  };
  struct CommandError {
    std::string command, message;
  };
  struct Ready {};
  struct Skip {};

  std::variant<SizeChanged, ScreenSize, CurrentPosition, DefaultPosition, MaxSize, Viewable,
               VideoMute, OrientationChange, Config, CommandComplete, CommandError, Ready, Skip>
      value;

  /// Returns the script that sends the event. Lengths have one decimal, in every locale. Texts are
  /// inserted without escaping.
  std::string javaScript() const;
};

}  // namespace kva
