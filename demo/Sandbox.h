#pragma once

#include <gio/gio.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace demo {

/// The sandbox ad server: a child process that ends with this object, or a server that already
/// runs.
class Sandbox {
 public:
  /// Starts the server from the demo's own folder, on a free port. Null if it does not start.
  static std::unique_ptr<Sandbox> launch();
  explicit Sandbox(std::string origin) : origin_(std::move(origin)) {}
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& origin() const { return origin_; }
  std::string apiBase() const { return origin_ + "/api/v1"; }

  /// Reads one of the server's control endpoints, such as "/control/state". Empty on failure.
  /// Blocks for up to 5 s; thread-safe.
  std::optional<nlohmann::json> get(const std::string& path) const;
  bool post(const std::string& path, const nlohmann::json& body) const;

 private:
  std::string origin_;
  GSubprocess* process_ = nullptr;
};

}  // namespace demo
