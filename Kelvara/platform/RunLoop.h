#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace kva {

/// A scheduled timer. Destroying it cancels the timer: no call begins after that, but a call on
/// another thread may still be running. It may be destroyed on any thread, also in its own
/// callback.
class Timer {
 public:
  Timer() = default;
  /// `keepAlive` cancels the timer when it is destroyed.
  explicit Timer(std::shared_ptr<void> keepAlive) : handle_(std::move(keepAlive)) {}
  void invalidate() { handle_.reset(); }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  std::shared_ptr<void> handle_;
};

enum class Repeats { no, yes };

/// Schedules timers. A timer that is scheduled on the network session's thread fires there; all
/// others fire on the main thread.
class RunLoop {
 public:
  virtual ~RunLoop() = default;
  /// Calls `fire` after `seconds`, or every `seconds`. A delayed repeating timer fires once, not
  /// once for each missed period. `seconds` is at least a millisecond and at most ten years; a
  /// value that is not finite counts as ten years.
  virtual Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) = 0;

  using Schedule = std::function<Timer(double, Repeats, std::move_only_function<void()>)>;
  /// A function that any thread may call. Its timers fire where those of the thread that called
  /// `scheduleHere` do.
  virtual Schedule scheduleHere() = 0;
};

}  // namespace kva
