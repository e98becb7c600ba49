#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include <Kelvara/platform/RunLoop.h>

namespace kva {

/// The timers of one loop. Scheduling and dropping handles: any thread. The loop that owns the
/// queue sleeps until `nextDue` and then calls `fireDue`.
class TimerQueue {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// `rescheduled` is called on the scheduling thread when a timer was added.
  explicit TimerQueue(std::function<void()> rescheduled);

  /// See RunLoop::schedule. On a closed queue the timer never fires.
  Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire);
  std::optional<Time> nextDue() const;
  /// The loop's thread only. Timers that are due run one after the other, the earliest first.
  void fireDue();
  /// Silences every timer, for good.
  void close();

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::function<void()> rescheduled_;
};

}  // namespace kva
