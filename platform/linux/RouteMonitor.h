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

/// The usable routes, at most one for each address family: the link is up and has a carrier, and
/// there is a source address. Thread-safe. If the system refuses the query, the result is one empty
/// route, and a request finds out whether the network works.
std::vector<Route> routesToInternet();

/// Watches the routes to the Internet. Main thread; needs its loop to run.
class RouteMonitor {
 public:
  /// `changed` is called on the main thread after a change of links, addresses or routes that
  /// changes the result of `routesToInternet`.
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
