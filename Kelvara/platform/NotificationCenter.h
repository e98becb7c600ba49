#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kva {

/// An observer's registration; dropping it means silence.
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

/// Posted on the main thread whenever `HostApplication::state` may have changed.
inline constexpr std::string_view kApplicationStateDidChangeNotification =
    "KVAApplicationStateDidChangeNotification";

/// Hands named notifications to whoever observes them. Thread-safe.
class NotificationCenter {
 public:
  NotificationCenter();
  ~NotificationCenter();

  /// `received` is called on the thread that posts. `object` null: from any sender.
  [[nodiscard]] Observation addObserver(std::string_view name, const void* object,
                                        std::function<void()> received);
  /// Calls the observers in the order of their registration, under no lock; one that is dropped
  /// meanwhile is not called.
  void post(std::string_view name, const void* object);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kva
