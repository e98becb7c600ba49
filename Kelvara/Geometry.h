#pragma once

namespace kva {

/// All lengths are logical (density-independent) pixels; y grows downwards.
struct Point {
  double x = 0, y = 0;
  bool operator==(const Point&) const = default;
};

struct Size {
  double width = 0, height = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
  Size size() const { return {width, height}; }
  bool operator==(const Rect&) const = default;
};

struct EdgeInsets {
  double top = 0, left = 0, bottom = 0, right = 0;
  bool operator==(const EdgeInsets&) const = default;
};

}  // namespace kva
