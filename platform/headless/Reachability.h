#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/platform/ReachabilityService.h>
#include <platform/headless/VirtualTime.h>

namespace kva::headless {

/// A network whose state a test sets; reachable at first. Thread-safe.
class HeadlessReachability final : public ReachabilityService {
 public:
  static constexpr auto kReachable = static_cast<std::uint32_t>(ReachabilityFlag::reachable);

  /// The operations that a test can make fail.
  enum class Operation { create, setCallback, setDispatchQueue, flags };

  explicit HeadlessReachability(VirtualTime& time);

  /// Notifies all watching references, also if the flags did not change.
  void setFlags(std::uint32_t flags);
  /// Makes the operation fail with this system error; `nullopt` makes it work again.
  void fail(Operation operation, std::optional<std::int32_t> systemError);
  /// The number of references that have a callback and a queue.
  int watchers() const;

  std::unique_ptr<ReachabilityReference> createWithAddress(std::uint32_t ipv4Address) override;
  std::unique_ptr<ReachabilityReference> createWithName(const std::string& hostname) override;
  std::int32_t lastError() const override;
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override;

 private:
  class Reference;
  struct Watch;
  struct State;
  std::unique_ptr<ReachabilityReference> create(std::optional<std::int32_t> error);

  VirtualTime& time_;
  std::shared_ptr<State> state_;
};

}  // namespace kva::headless
