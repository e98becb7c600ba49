#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "bench/Row.h"
#include "sandbox/Server.h"

namespace kva::bench {

/// What the ads show.
enum class Page {
  colour,   ///< one colour, for measurements of pixels
  imageAd,  ///< the sandbox's ad with three images and an end card
};

/// Runs hosts, each in a process of its own, one at a time, against one sandbox ad server. The
/// hosts with the SDK share its store, so all but the first find the template cached.
class Hosts {
 public:
  /// What a host has measured, by name.
  using Figures = std::map<std::string, Series>;

  explicit Hosts(Page page);
  ~Hosts();
  Hosts(const Hosts&) = delete;
  Hosts& operator=(const Hosts&) = delete;

  /// The scenario with an ad of the SDK, and with bare WebKitGTK. A failure ends the process.
  Figures kelvara(const std::string& scenario) const;
  Figures webkit(const std::string& scenario) const;

 private:
  sandbox::Server server_;
  std::filesystem::path folder_;
};

}  // namespace kva::bench
