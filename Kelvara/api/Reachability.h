#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/platform/NotificationCenter.h>
#include <Kelvara/platform/ReachabilityService.h>

namespace kva {

/// The kind of link that can be used.
enum class Connection { unavailable, wifi, cellular };
inline constexpr Connection kNoConnection = Connection::unavailable;
std::string_view description(Connection connection);  ///< "No Connection", "WiFi", "Cellular"

/// The older three-way status.
enum class NetworkStatus { notReachable, reachableViaWiFi, reachableViaWWAN };
std::string_view description(NetworkStatus status);

/// The system's flags for a target.
class ReachabilityFlags {
 public:
  ReachabilityFlags() = default;
  explicit ReachabilityFlags(std::uint32_t bits) : bits_(bits) {}

  bool isReachableFlagSet() const { return has(ReachabilityFlag::reachable); }
  bool isConnectionRequiredFlagSet() const { return has(ReachabilityFlag::connectionRequired); }
  bool isConnectionOnTrafficOrDemandFlagSet() const {
    return isConnectionOnTrafficFlagSet() || isConnectionOnDemandFlagSet();
  }
  bool isInterventionRequiredFlagSet() const { return has(ReachabilityFlag::interventionRequired); }
  bool isOnWWANFlagSet() const { return has(ReachabilityFlag::isWWAN); }
  bool isConnectionOnTrafficFlagSet() const { return has(ReachabilityFlag::connectionOnTraffic); }
  bool isConnectionOnDemandFlagSet() const { return has(ReachabilityFlag::connectionOnDemand); }
  bool isTransientConnectionFlagSet() const { return has(ReachabilityFlag::transientConnection); }
  bool isLocalAddressFlagSet() const { return has(ReachabilityFlag::isLocalAddress); }
  bool isDirectFlagSet() const { return has(ReachabilityFlag::isDirect); }
  bool isConnectionRequiredAndTransientFlagSet() const {
    return isConnectionRequiredFlagSet() && isTransientConnectionFlagSet();
  }

  Connection connection() const;
  /// One letter for each flag that is set, else "-": "-R -------".
  std::string description() const;

  bool operator==(const ReachabilityFlags&) const = default;

 private:
  bool has(ReachabilityFlag flag) const { return bits_ & static_cast<std::uint32_t>(flag); }

  std::uint32_t bits_ = 0;
};

/// The reason why a monitor could not be created, started or read, with the system's error code.
struct ReachabilityError {
  enum class Case {
    failedToCreateWithAddress,
    failedToCreateWithHostname,
    unableToSetCallback,
    unableToSetDispatchQueue,
    unableToGetFlags,
  };
  Case what;
  std::int32_t systemError = 0;
  std::string target{};  ///< the address or host name that could not be watched
};

/// Posted, with the monitor as its object, after each change of the flags.
inline constexpr std::string_view kReachabilityChanged = "ReachabilityChangedNotification";

/// Watches whether a target is reachable, and over which kind of link. Thread-safe, except for the
/// callbacks and settings, which must be set before it is started. Only its users own it, not the
/// system or a queue.
class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  using Made = expected_impl::expected<std::shared_ptr<Reachability>, ReachabilityError>;
  using Outcome = expected_impl::expected<void, ReachabilityError>;

  /// Watches the general internet and notifies on the main queue.
  static Made create();
  /// If `notificationQueue` is null, callbacks run on the monitor's serial queue.
  static Made create(std::shared_ptr<DispatchQueue> notificationQueue);
  static Made createWithHostname(const std::string& hostname,
                                 std::shared_ptr<DispatchQueue> notificationQueue);
  ~Reachability();

  /// Starts notifications of changes, unless they are started. The flags now count as a change if
  /// they were unknown.
  Outcome startNotifier();
  void stopNotifier();
  bool isNotifierRunning() const { return notifierRunning_; }

  /// Reads the flags first if they are unknown.
  Connection connection();
  NetworkStatus currentReachabilityStatus();
  std::string_view currentReachabilityString();
  bool isReachable() { return connection() != Connection::unavailable; }
  bool isReachableViaWWAN() { return connection() == Connection::cellular; }
  bool isReachableViaWiFi() { return connection() == Connection::wifi; }
  /// The flags' description, or "unavailable flags".
  std::string description() const;

  std::function<void(Reachability&)> whenReachable;
  std::function<void(Reachability&)> whenUnreachable;
  bool allowsCellularConnection = true;  ///< false: a cellular link counts as unavailable

 private:
  Reachability(std::unique_ptr<ReachabilityReference> reference,
               std::shared_ptr<DispatchQueue> notificationQueue);
  static Made make(std::unique_ptr<ReachabilityReference> reference,
                   std::shared_ptr<DispatchQueue> notificationQueue, ReachabilityError error);

  Outcome setReachabilityFlags();
  void setFlags(ReachabilityFlags flags);
  void notifyReachabilityChanged();

  std::shared_ptr<NotificationCenter> notificationCenter_;
  std::unique_ptr<ReachabilityReference> reachabilityRef_;
  std::shared_ptr<SerialQueue> reachabilitySerialQueue_;
  std::shared_ptr<DispatchQueue> notificationQueue_;
  std::atomic<bool> notifierRunning_{false};
  Guarded<std::optional<ReachabilityFlags>> flags_;
};

}  // namespace kva
