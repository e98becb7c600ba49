#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kva {

/// The installed host application. Thread-safe.
class MainBundle {
 public:
  virtual ~MainBundle() = default;
  /// The folders to search for the SDK's resources: first the application's, then the SDK's.
  virtual std::vector<std::filesystem::path> resourceFolders() const = 0;
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  /// A text of the information dictionary; `key` is for example "CFBundleShortVersionString".
  virtual std::optional<std::string> infoString(const std::string& key) const = 0;
};

/// The API bases of the process, each including "/api/v1". They do not change.
struct APIBases {
  std::string production;
  std::string sandbox;
};

}  // namespace kva
