#pragma once

#include <functional>

namespace kva {

/// Runs tasks one at a time, in the order in which they were dispatched. Thread-safe.
class DispatchQueue {
 public:
  using Task = std::move_only_function<void()>;

  virtual ~DispatchQueue() = default;

  /// Dispatches the task and returns before it runs, also when called on the queue itself. Tasks
  /// that have not begun when the queue is destroyed are dropped.
  virtual void async(Task task) = 0;
};

/// The queue of the main thread, which owns all views.
class MainQueue : public DispatchQueue {
 public:
  virtual bool isMainThread() const = 0;
};

/// A queue that has its own thread.
class SerialQueue : public DispatchQueue {
 public:
  /// Returns after the task has run. Called on the queue itself, it runs the task inline.
  virtual void sync(Task task) = 0;
};

}  // namespace kva
