#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kva {

/// The route that the kernel chooses for packets to the Internet, in one address family.
struct Route {
  unsigned link = 0;
  std::string source, gateway;  ///< binary addresses; no gateway on a point-to-point link

  bool operator==(const Route&) const = default;
};

/// One route for each address family that has a usable one: its link is up and has a carrier, and
/// the packets have an address to come from. Any thread. Where the system refuses the question,
/// one nameless route, because then only a request can find out.
std::vector<Route> routesToInternet();

/// Follows the routes to the Internet. Main thread; changes are noticed when its loop runs.
class RouteMonitor {
 public:
  /// `changed` is called after a link, an address or a route came, changed or went such that the
  /// routes differ.
  explicit RouteMonitor(std::function<void()> changed);
  ~RouteMonitor();
  RouteMonitor(const RouteMonitor&) = delete;
  RouteMonitor& operator=(const RouteMonitor&) = delete;

  bool hasRoute() const { return !routes_.empty(); }

 private:
  void drain();
  void update();

  std::function<void()> changed_;
  int messages_ = -1;
  unsigned watch_ = 0, settling_ = 0;  ///< GLib sources; 0: none
  std::vector<Route> routes_ = routesToInternet();
};

}  // namespace kva
