#pragma once

#include <functional>

namespace kva {

/// Runs tasks one after the other, in the order in which they were given. Thread-safe.
class DispatchQueue {
 public:
  using Task = std::move_only_function<void()>;

  virtual ~DispatchQueue() = default;

  /// Never runs the task inline, also when called on the queue itself. Tasks that have not begun
  /// when the queue is destroyed are dropped.
  virtual void async(Task task) = 0;
};

/// The queue of the main thread, where views live.
class MainQueue : public DispatchQueue {
 public:
  virtual bool isMainThread() const = 0;
};

/// A queue with a thread of its own.
class SerialQueue : public DispatchQueue {
 public:
  /// Runs the task and returns when it has run; inline when called on the queue itself.
  virtual void sync(Task task) = 0;
};

}  // namespace kva
