#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <Kelvara/Geometry.h>

namespace kva {

/// What the page is told through its `mraidbridge` object.
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

  /// The call that tells the page. Lengths have one decimal, whatever the locale; texts stand as
  /// they are, neither quoted nor escaped.
  std::string javaScript() const;
};

}  // namespace kva
