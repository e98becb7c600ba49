#pragma once

#include <cmath>
#include <cstdio>
#include <string>

// The colours of the host and of the page. Their green is equal, so every mixture of the two has
// that green too, and less of it shows that something darker is mixed in.
namespace kva::bench {

struct Colour {
  double red, green, blue;
};
inline constexpr Colour kHostColour{240, 200, 40}, kPageColour{40, 200, 240};
/// Of the page in a pixel; less is not visible.
inline constexpr double kVisibleShare = 0.02;

inline Colour colour(unsigned long pixel) {
  const auto channel = [pixel](int shift) { return static_cast<double>(pixel >> shift & 0xFF); };
  return {channel(16), channel(8), channel(0)};
}

/// The page's share of a mixture of host, page and black; 0 if something lighter is mixed in.
inline double pageShare(Colour mixture) {
  const auto& [hostRed, green, hostBlue] = kHostColour;
  const auto& pageBlue = kPageColour.blue;
  if (mixture.green > green + 6) return 0;
  return (mixture.blue * hostRed - mixture.red * hostBlue) /
         (pageBlue * hostRed - kPageColour.red * hostBlue);
}

inline bool isPageColour(Colour seen) {
  return std::abs(seen.red - kPageColour.red) <= 2 &&
         std::abs(seen.green - kPageColour.green) <= 2 &&
         std::abs(seen.blue - kPageColour.blue) <= 2;
}

inline std::string css(Colour colour) {
  char text[8];
  std::snprintf(text, sizeof text, "#%02x%02x%02x", static_cast<unsigned>(colour.red),
                static_cast<unsigned>(colour.green), static_cast<unsigned>(colour.blue));
  return text;
}

}  // namespace kva::bench
