#pragma once

#include <memory>

#include <Kelvara/platform/ReachabilityService.h>

#include "platform/linux/SystemBus.h"

namespace kva {

enum class ReachabilityPolicy {
  followSystem,
  assumeReachable,  ///< for a server on this machine, which needs no network
};

/// Reachability as GLib's network monitor sees it: the internet is reachable when there is a
/// default route, behind a captive portal only after an intervention, and over WWAN when
/// NetworkManager says that the primary connection is a modem's. The machine's own addresses are
/// always reachable; every other target is as reachable as the internet.
///
/// Made and destroyed on the main thread, where changes arrive too. References are thread-safe
/// and may outlive the service; then nothing changes any more.
class NetworkReachability final : public ReachabilityService {
 public:
  NetworkReachability(ReachabilityPolicy policy, SystemBus& bus);
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
