#pragma once

#include <gio/gio.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace demo {

/// The sandbox ad server: a child process that ends with this object, or one that runs already.
class Sandbox {
 public:
  /// Starts the server that was built beside the demo, on a free port; empty when it does not
  /// come up.
  static std::unique_ptr<Sandbox> launch();
  explicit Sandbox(std::string origin) : origin_(std::move(origin)) {}
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& origin() const { return origin_; }
  std::string apiBase() const { return origin_ + "/api/v1"; }

  /// Asks one of the server's control endpoints, such as "/control/state"; empty when it cannot be
  /// had. Blocks for a moment; any thread.
  std::optional<nlohmann::json> get(const std::string& path) const;
  bool post(const std::string& path, const nlohmann::json& body) const;

 private:
  std::string origin_;
  GSubprocess* process_ = nullptr;
};

}  // namespace demo
