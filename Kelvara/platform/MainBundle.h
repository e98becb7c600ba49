#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kva {

/// The host application as it is installed. Thread-safe.
class MainBundle {
 public:
  virtual ~MainBundle() = default;
  /// The folder in which the application's resources are looked for.
  virtual std::filesystem::path path() const = 0;
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  /// A text of the information dictionary, such as "CFBundleShortVersionString".
  virtual std::optional<std::string> infoString(const std::string& key) const = 0;
};

/// The API bases that the process talks to; fixed when the platform is made.
struct APIBases {
  std::string production;  ///< with "/api/v1" in it
  std::string sandbox;
};

/// Where log lines go: one write per call, so that lines do not interleave. Thread-safe.
class StandardOutput {
 public:
  virtual ~StandardOutput() = default;
  /// Writes `text` and a newline.
  virtual void print(std::string_view text) = 0;
};

}  // namespace kva
