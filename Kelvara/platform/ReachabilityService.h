#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/platform/DispatchQueue.h>

namespace kva {

/// Properties of the route to a target, as bits of one word.
enum class ReachabilityFlag : std::uint32_t {
  transientConnection = 1u << 0,
  reachable = 1u << 1,
  connectionRequired = 1u << 2,
  connectionOnTraffic = 1u << 3,
  interventionRequired = 1u << 4,
  connectionOnDemand = 1u << 5,
  isLocalAddress = 1u << 16,
  isDirect = 1u << 17,
  isWWAN = 1u << 18,
};

/// Watches one target. Thread-safe.
class ReachabilityReference {
 public:
  virtual ~ReachabilityReference() = default;
  /// The current flags; absent on failure.
  virtual std::optional<std::uint32_t> flags() = 0;
  /// `changed` is called with the new flags after each change, on the queue of `setDispatchQueue`.
  /// Null ends the calls.
  virtual bool setCallback(std::function<void(std::uint32_t)> changed) = 0;
  virtual bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) = 0;
  /// The system error of the last failure.
  virtual std::int32_t lastError() const = 0;
};

/// The system's network-reachability service.
class ReachabilityService {
 public:
  virtual ~ReachabilityService() = default;
  /// Null on failure, with the cause in `lastError`. The address is in network byte order; 0.0.0.0
  /// stands for the general internet.
  virtual std::unique_ptr<ReachabilityReference> createWithAddress(std::uint32_t ipv4Address) = 0;
  virtual std::unique_ptr<ReachabilityReference> createWithName(const std::string& hostname) = 0;
  virtual std::int32_t lastError() const = 0;
  virtual std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) = 0;
};

}  // namespace kva
