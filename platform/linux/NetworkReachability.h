#pragma once

#include <functional>
#include <memory>

#include <Kelvara/platform/ReachabilityService.h>

#include "platform/linux/SystemBus.h"

namespace kva {

enum class ReachabilityPolicy {
  followSystem,
  assumeReachable,  ///< for a server on this machine, which needs no network
};

/// Reachability as the kernel's routes say it: the Internet is reachable when a route leads there
/// over a link with a carrier. NetworkManager, where it runs, adds whether a captive portal asks
/// for an intervention and whether the primary connection is a modem's (WWAN). The machine's own
/// addresses are always reachable; every other target is as reachable as the Internet.
///
/// Made and destroyed on the main thread, where changes arrive too. References are thread-safe
/// and may outlive the service; then nothing changes any more.
class NetworkReachability final : public ReachabilityService {
 public:
  /// `routesChanged` is called after each change of the routes to the Internet, also where both
  /// before and after there is one. Never under `assumeReachable`.
  NetworkReachability(ReachabilityPolicy policy, SystemBus& bus,
                      std::function<void()> routesChanged);
  ~NetworkReachability() override;

  std::unique_ptr<ReachabilityReference> createWithAddress(std::uint32_t ipv4Address) override;
  std::unique_ptr<ReachabilityReference> createWithName(const std::string& hostname) override;
  std::int32_t lastError() const override;
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override;

 private:
  struct Watch;
  struct Hub;
  class Reference;
  class Monitor;

  std::shared_ptr<Hub> hub_;
  std::unique_ptr<Monitor> monitor_;  ///< null under `assumeReachable`
};

}  // namespace kva
