#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <Kelvara/platform/Clock.h>
#include <Kelvara/platform/RunLoop.h>

namespace kva::headless {

/// Schedules tasks and timers in one order: by due time, then by the order of the calls. They run
/// only inside `run`, `advance` and `runUntil`, on the calling thread, which stands for all threads
/// of the SDK. Only one thread may call these three; all else is thread-safe. The wall clock
/// advances with virtual time, and `setNow` sets it independently.
class VirtualTime final : public RunLoop, public Clock {
 public:
  using Task = std::move_only_function<void()>;

  /// The wall clock begins at 2026-01-01 00:00:00 UTC.
  VirtualTime();

  /// Runs all tasks that are due now, including those that they schedule for now.
  void run();
  /// Advances virtual time by `seconds` and runs each task at its due time.
  void advance(double seconds);
  /// Runs the next task until `done` returns true; false if it does not within `limit` virtual
  /// seconds.
  bool runUntil(const std::function<bool()>& done, double limit = 60);
  /// Advances virtual time without running anything, like a blocked loop.
  void stall(double seconds);
  /// Sets the wall clock, like the user. Due times do not change.
  void setNow(double secondsSince1970);

  /// Runs `task` after `seconds`, never inline.
  void after(double seconds, Task task);
  /// Drops all pending tasks and timers.
  void clear();

  Timer schedule(double seconds, Repeats repeats, Task fire) override;
  Schedule scheduleHere() override;
  /// The number of tasks and timers that wait for their time.
  std::size_t waiting() const;

  double now() const override;
  /// Virtual time in seconds; `setNow` does not change it.
  double monotonicNow() const override;
  /// In the time zone of the process (TZ).
  double addingDays(double time, int days) const override;
  double addingHours(double time, int hours) const override;

 private:
  struct Event;
  struct State;
  std::shared_ptr<Event> add(std::int64_t nanoseconds, std::int64_t interval, Task task);
  bool runNext(std::int64_t until);

  std::shared_ptr<State> state_;
};

}  // namespace kva::headless
