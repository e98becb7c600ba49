#include <Kelvara/api/Reachability.h>

#include <tuple>
#include <utility>

#include <Kelvara/core/Runtime.h>

namespace kva {
namespace {

using Case = ReachabilityError::Case;

auto unreachable(ReachabilityError error) {
  return expected_impl::unexpected<ReachabilityError>(std::move(error));
}

}  // namespace

std::string_view description(Connection connection) {
  switch (connection) {
    case Connection::unavailable:
      return "No Connection";
    case Connection::wifi:
      return "WiFi";
    case Connection::cellular:
      return "Cellular";
  }
  return "";
}

std::string_view description(NetworkStatus status) {
  return description(static_cast<Connection>(status));
}

Connection ReachabilityFlags::connection() const {
  if (!isReachableFlagSet()) return Connection::unavailable;
  auto connection = Connection::unavailable;
  if (!isConnectionRequiredFlagSet()) connection = Connection::wifi;
  if (isConnectionOnTrafficOrDemandFlagSet() && !isInterventionRequiredFlagSet())
    connection = Connection::wifi;
  if (isOnWWANFlagSet()) connection = Connection::cellular;
  return connection;
}

std::string ReachabilityFlags::description() const {
  const auto letter = [](bool isSet, char mark) { return isSet ? mark : '-'; };
  return {letter(isOnWWANFlagSet(), 'W'),
          letter(isReachableFlagSet(), 'R'),
          ' ',
          letter(isConnectionRequiredFlagSet(), 'c'),
          letter(isTransientConnectionFlagSet(), 't'),
          letter(isInterventionRequiredFlagSet(), 'i'),
          letter(isConnectionOnTrafficFlagSet(), 'C'),
          letter(isConnectionOnDemandFlagSet(), 'D'),
          letter(isLocalAddressFlagSet(), 'l'),
          letter(isDirectFlagSet(), 'd')};
}

Reachability::Made Reachability::create() {
  return create(Runtime::current().platform().mainQueue);
}

Reachability::Made Reachability::create(std::shared_ptr<DispatchQueue> notificationQueue) {
  constexpr std::uint32_t generalInternet = 0;
  auto& service = *Runtime::current().platform().reachability;
  return make(service.createWithAddress(generalInternet), std::move(notificationQueue),
              {.what = Case::failedToCreateWithAddress, .target = "0.0.0.0"});
}

Reachability::Made Reachability::createWithHostname(
    const std::string& hostname, std::shared_ptr<DispatchQueue> notificationQueue) {
  auto& service = *Runtime::current().platform().reachability;
  return make(service.createWithName(hostname), std::move(notificationQueue),
              {.what = Case::failedToCreateWithHostname, .target = hostname});
}

Reachability::Made Reachability::make(std::unique_ptr<ReachabilityReference> reference,
                                      std::shared_ptr<DispatchQueue> notificationQueue,
                                      ReachabilityError error) {
  if (!reference) {
    error.systemError = Runtime::current().platform().reachability->lastError();
    return unreachable(std::move(error));
  }
  return std::shared_ptr<Reachability>(
      new Reachability(std::move(reference), std::move(notificationQueue)));
}

Reachability::Reachability(std::unique_ptr<ReachabilityReference> reference,
                           std::shared_ptr<DispatchQueue> notificationQueue)
    : notificationCenter_(Runtime::current().platform().notificationCenter),
      reachabilityRef_(std::move(reference)),
      reachabilitySerialQueue_(
          Runtime::current().platform().reachability->makeSerialQueue("kelvara.reachability")),
      notificationQueue_(std::move(notificationQueue)) {}

Reachability::~Reachability() { stopNotifier(); }

Reachability::Outcome Reachability::startNotifier() {
  if (notifierRunning_) return {};
  const bool isCallbackSet = reachabilityRef_->setCallback([weak = weak_from_this()](auto bits) {
    if (auto monitor = weak.lock()) monitor->setFlags(ReachabilityFlags(bits));
  });
  if (!isCallbackSet) {
    const auto systemError = reachabilityRef_->lastError();
    stopNotifier();
    return unreachable({.what = Case::unableToSetCallback, .systemError = systemError});
  }
  if (!reachabilityRef_->setDispatchQueue(reachabilitySerialQueue_)) {
    const auto systemError = reachabilityRef_->lastError();
    stopNotifier();
    return unreachable({.what = Case::unableToSetDispatchQueue, .systemError = systemError});
  }
  if (auto outcome = setReachabilityFlags(); !outcome) return outcome;
  notifierRunning_ = true;
  return {};
}

void Reachability::stopNotifier() {
  reachabilityRef_->setCallback(nullptr);
  reachabilityRef_->setDispatchQueue(nullptr);
  notifierRunning_ = false;
}

Reachability::Outcome Reachability::setReachabilityFlags() {
  Outcome outcome;
  reachabilitySerialQueue_->sync([&] {
    if (const auto bits = reachabilityRef_->flags()) {
      setFlags(ReachabilityFlags(*bits));
    } else {
      outcome = unreachable(
          {.what = Case::unableToGetFlags, .systemError = reachabilityRef_->lastError()});
      stopNotifier();
    }
  });
  return outcome;
}

void Reachability::setFlags(ReachabilityFlags flags) {
  const bool isChanged =
      flags_.with([&](auto& current) { return std::exchange(current, flags) != flags; });
  if (isChanged) notifyReachabilityChanged();
}

void Reachability::notifyReachabilityChanged() {
  auto task = [weak = weak_from_this()] {
    const auto monitor = weak.lock();
    if (!monitor) return;
    auto& callback = monitor->connection() != Connection::unavailable ? monitor->whenReachable
                                                                      : monitor->whenUnreachable;
    if (callback) callback(*monitor);
    monitor->notificationCenter_->post(kReachabilityChanged, monitor.get());
  };
  if (notificationQueue_) {
    notificationQueue_->async(std::move(task));
  } else {
    task();
  }
}

Connection Reachability::connection() {
  if (!flags_.get()) std::ignore = setReachabilityFlags();
  const auto flags = flags_.get();
  if (!flags) return Connection::unavailable;
  const Connection connection = flags->connection();
  if (connection == Connection::cellular && !allowsCellularConnection)
    return Connection::unavailable;
  return connection;
}

NetworkStatus Reachability::currentReachabilityStatus() {
  return static_cast<NetworkStatus>(connection());
}

std::string_view Reachability::currentReachabilityString() {
  return kva::description(connection());
}

std::string Reachability::description() const {
  const auto flags = flags_.get();
  return flags ? flags->description() : "unavailable flags";
}

}  // namespace kva
