#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kva {

/// The registration of an observer. Destroying it ends the registration.
class Observation {
 public:
  Observation() = default;
  explicit Observation(std::shared_ptr<void> keepAlive) : handle_(std::move(keepAlive)) {}
  void stop() { handle_.reset(); }

 private:
  std::shared_ptr<void> handle_;
};

inline constexpr std::string_view kOrientationDidChangeNotification =
    "UIDeviceOrientationDidChangeNotification";

/// Posted on the main thread when `HostApplication::state` may have changed.
inline constexpr std::string_view kApplicationStateDidChangeNotification =
    "KVAApplicationStateDidChangeNotification";

/// Delivers named notifications to their observers. Thread-safe.
class NotificationCenter {
 public:
  NotificationCenter();
  ~NotificationCenter();

  /// `received` is called on the thread that posts. If `object` is null, notifications of every
  /// sender are delivered.
  [[nodiscard]] Observation addObserver(std::string_view name, const void* object,
                                        std::function<void()> received);
  /// Calls the observers in the order of their registration, without a lock. An observer that is
  /// removed by an earlier one is not called.
  void post(std::string_view name, const void* object);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kva
