#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace kva {

/// A scheduled timer; dropping the handle means silence. May be dropped on any thread, from the
/// timer's own callback too: no call begins after that (one that runs on another thread ends).
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

/// Schedules timers on the loop of the calling thread: the session's own on the session's thread,
/// the main loop on every other.
class RunLoop {
 public:
  virtual ~RunLoop() = default;
  /// Calls `fire` after `seconds`, or every `seconds`; a repeating timer that was held up fires
  /// once, not once for every period missed. An interval below a millisecond counts as one; one
  /// that is not finite, or longer than ten years, counts as ten years.
  virtual Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) = 0;
};

}  // namespace kva
