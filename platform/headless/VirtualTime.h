#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <Kelvara/platform/Clock.h>
#include <Kelvara/platform/RunLoop.h>

namespace kva::headless {

/// Everything that happens later, in one order: by the time it is due, then by the order in which
/// it was given. Nothing happens but inside `run`, `advance` and `runUntil`, on the thread that
/// calls them, which plays every thread of the SDK; only one thread may. All else is thread-safe.
/// The wall clock goes along with virtual time, and can be set on its own as a user would.
class VirtualTime final : public RunLoop, public Clock {
 public:
  using Task = std::move_only_function<void()>;

  /// The wall clock begins at 2026-01-01 00:00:00 UTC.
  VirtualTime();

  /// Runs what is due now, and what becomes due by that, until nothing is left.
  void run();
  /// Lets so many seconds pass, running what falls due in them, each at its own time.
  void advance(double seconds);
  /// Lets virtual time pass from one event to the next until `done` holds; false when it does not
  /// within `limit` seconds.
  bool runUntil(const std::function<bool()>& done, double limit = 60);
  /// Seconds that pass while nothing runs, as when the loop is held up.
  void stall(double seconds);
  /// The user sets the wall clock; what is due later stays due when it was.
  void setNow(double secondsSince1970);

  /// Runs `task` so many seconds from now, never inline.
  void after(double seconds, Task task);
  /// Drops all that has not run.
  void clear();

  Timer schedule(double seconds, Repeats repeats, Task fire) override;

  double now() const override;
  /// Virtual time: it follows `advance`, not the wall clock's changes.
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
