#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include <Kelvara/platform/RunLoop.h>

namespace kva {

/// The timers of one loop. The loop that owns the queue sleeps until `nextDue` and then calls
/// `fireDue`. Any thread may schedule timers and destroy their handles.
class TimerQueue {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// `rescheduled` is called on the scheduling thread after a timer was added.
  explicit TimerQueue(std::function<void()> rescheduled);

  /// See RunLoop::schedule. After `close` the timer never fires.
  Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire);
  std::optional<Time> nextDue() const;
  /// Fires the due timers, the earliest first. Loop's thread only.
  void fireDue();
  /// Cancels all timers.
  void close();

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::function<void()> rescheduled_;
};

}  // namespace kva
