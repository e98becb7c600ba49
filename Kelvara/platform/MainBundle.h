#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kva {

/// The host application as it is installed. Thread-safe.
class MainBundle {
 public:
  virtual ~MainBundle() = default;
  /// The folders in which the SDK looks for its resources: the application's own first.
  virtual std::vector<std::filesystem::path> resourceFolders() const = 0;
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  /// A text of the information dictionary, such as "CFBundleShortVersionString".
  virtual std::optional<std::string> infoString(const std::string& key) const = 0;
};

/// The API bases that the process talks to; fixed when the platform is made.
struct APIBases {
  std::string production;  ///< with "/api/v1" in it
  std::string sandbox;
};

}  // namespace kva
