#include "platform/linux/NetworkReachability.h"

#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include <arpa/inet.h>

#include <Kelvara/base/Guarded.h>

#include "platform/linux/RouteMonitor.h"
#include "platform/linux/Threads.h"

namespace kva {
namespace {

constexpr std::uint32_t bits(std::same_as<ReachabilityFlag> auto... flags) {
  return (static_cast<std::uint32_t>(flags) | ...);
}
constexpr auto kThisMachine = bits(ReachabilityFlag::reachable, ReachabilityFlag::isLocalAddress);

bool isLoopback(std::uint32_t ipv4Address) { return ntohl(ipv4Address) >> 24 == 127; }
bool isLoopback(const std::string& hostname) {
  in_addr address{};
  return hostname == "localhost" || hostname == "::1" ||
         (inet_pton(AF_INET, hostname.c_str(), &address) == 1 && isLoopback(address.s_addr));
}

}  // namespace

/// The callback of one reference and the queue that it runs on.
struct NetworkReachability::Watch {
  struct Registration {
    std::shared_ptr<std::function<void(std::uint32_t)>> changed;
    std::shared_ptr<SerialQueue> queue;
  };
  Guarded<Registration> registration;
};

/// The flags of the Internet, and the references that watch them.
struct NetworkReachability::Hub {
  struct Known {
    std::uint32_t flags = 0;
    std::vector<std::weak_ptr<Watch>> watches;
  };
  Guarded<Known> known;
  std::atomic<std::int32_t> lastError{0};

  void setFlags(std::uint32_t flags) {
    const auto watches = known.with([&](Known& now) -> std::vector<std::weak_ptr<Watch>> {
      if (std::exchange(now.flags, flags) == flags) return {};
      std::erase_if(now.watches, [](const auto& watch) { return watch.expired(); });
      return now.watches;
    });
    for (const auto& weak : watches) {
      const auto watch = weak.lock();
      const auto queue = watch ? watch->registration.get().queue : nullptr;
      if (!queue) continue;
      queue->async([weak, flags] {
        const auto alive = weak.lock();
        const auto changed = alive ? alive->registration.get().changed : nullptr;
        if (changed) (*changed)(flags);
      });
    }
  }
};

class NetworkReachability::Reference final : public ReachabilityReference {
 public:
  Reference(std::shared_ptr<Hub> hub, bool isThisMachine)
      : hub_(std::move(hub)), isThisMachine_(isThisMachine) {
    if (!isThisMachine_) hub_->known.with([&](auto& known) { known.watches.push_back(watch_); });
  }

  std::optional<std::uint32_t> flags() override {
    if (isThisMachine_) return kThisMachine;
    return hub_->known.with([](const auto& known) { return known.flags; });
  }
  bool setCallback(std::function<void(std::uint32_t)> changed) override {
    auto shared = changed ? std::make_shared<std::function<void(std::uint32_t)>>(std::move(changed))
                          : nullptr;
    // Swap, so the old callback is destroyed outside the lock.
    watch_->registration.with([&](auto& now) { std::swap(now.changed, shared); });
    return true;
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    watch_->registration.with([&](auto& now) { std::swap(now.queue, queue); });
    return true;
  }
  std::int32_t lastError() const override { return 0; }

 private:
  std::shared_ptr<Hub> hub_;
  bool isThisMachine_;
  std::shared_ptr<Watch> watch_ = std::make_shared<Watch>();
};

/// Updates the hub's flags when the system's network changes. Main thread.
class NetworkReachability::Monitor {
 public:
  Monitor(std::shared_ptr<Hub> hub, SystemBus& bus, std::function<void()> routesChanged)
      : hub_(std::move(hub)),
        networkManager_(bus,
                        {"org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                         "org.freedesktop.NetworkManager"},
                        [this] { update(); }),
        routes_([this, routesChanged = std::move(routesChanged)] {
          routesChanged();
          update();
        }) {
    update();
  }

 private:
  void update() { hub_->setFlags(flags()); }

  std::uint32_t flags() const {
    constexpr std::uint32_t kPortal = 2;  // NMConnectivityState
    if (!routes_.hasRoute()) return 0;
    auto flags = bits(ReachabilityFlag::reachable);
    if (networkManager_.number("Connectivity") == kPortal)
      flags |= bits(ReachabilityFlag::connectionRequired, ReachabilityFlag::interventionRequired);
    const auto kind = networkManager_.text("PrimaryConnectionType");
    if (kind == "gsm" || kind == "cdma") flags |= bits(ReachabilityFlag::isWWAN);
    return flags;
  }

  std::shared_ptr<Hub> hub_;
  BusObject networkManager_;
  RouteMonitor routes_;
};

NetworkReachability::NetworkReachability(ReachabilityPolicy policy, SystemBus& bus,
                                         std::function<void()> routesChanged)
    : hub_(std::make_shared<Hub>()) {
  if (policy == ReachabilityPolicy::assumeReachable)
    hub_->setFlags(bits(ReachabilityFlag::reachable));
  else
    monitor_ = std::make_unique<Monitor>(hub_, bus, std::move(routesChanged));
}

NetworkReachability::~NetworkReachability() = default;

std::unique_ptr<ReachabilityReference> NetworkReachability::createWithAddress(
    std::uint32_t ipv4Address) {
  return std::make_unique<Reference>(hub_, isLoopback(ipv4Address));
}

std::unique_ptr<ReachabilityReference> NetworkReachability::createWithName(
    const std::string& hostname) {
  if (hostname.empty()) {
    hub_->lastError = EINVAL;
    return nullptr;
  }
  return std::make_unique<Reference>(hub_, isLoopback(hostname));
}

std::int32_t NetworkReachability::lastError() const { return hub_->lastError; }

std::shared_ptr<SerialQueue> NetworkReachability::makeSerialQueue(const std::string& label) {
  return std::make_shared<ThreadQueue>(label);
}

}  // namespace kva
