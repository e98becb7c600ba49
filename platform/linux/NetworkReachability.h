#pragma once

#include <functional>
#include <memory>

#include <Kelvara/platform/ReachabilityService.h>

#include "platform/linux/SystemBus.h"

namespace kva {

enum class ReachabilityPolicy {
  followSystem,
  assumeReachable,  ///< for a server on this machine
};

/// Reachability from the kernel's routes: the Internet is reachable if a route leads there over a
/// link with a carrier. NetworkManager, where it runs, reports a captive portal (intervention
/// required) and a modem as the primary connection (WWAN). Loopback addresses are always reachable;
/// all other targets have the flags of the Internet.
///
/// Construct and destroy it on the main thread, whose loop delivers changes. References are
/// thread-safe and may outlive the service; their flags then stay constant.
class NetworkReachability final : public ReachabilityService {
 public:
  /// `routesChanged` is called on the main thread after each change of the routes to the Internet,
  /// also when one route replaces another. It is never called under `assumeReachable`.
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
