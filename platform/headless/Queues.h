#pragma once

#include <memory>
#include <string>

#include <Kelvara/platform/DispatchQueue.h>
#include <platform/headless/VirtualTime.h>

namespace kva::headless {

/// The tasks of one queue; they run in virtual time, in the order of the calls.
class TaskQueue {
 public:
  explicit TaskQueue(VirtualTime& time);
  void async(DispatchQueue::Task task);
  /// Runs the earlier tasks, then `task`, on the calling thread. Inside a task of the queue, runs
  /// `task` at once.
  void sync(DispatchQueue::Task task);

 private:
  struct State;
  VirtualTime& time_;
  std::shared_ptr<State> state_;
};

class HeadlessMainQueue final : public MainQueue {
 public:
  explicit HeadlessMainQueue(VirtualTime& time) : tasks_(time) {}
  void async(Task task) override { tasks_.async(std::move(task)); }
  /// Always true: virtual time runs all threads of the SDK on one.
  bool isMainThread() const override { return true; }

 private:
  TaskQueue tasks_;
};

class HeadlessSerialQueue final : public SerialQueue {
 public:
  explicit HeadlessSerialQueue(VirtualTime& time) : tasks_(time) {}
  void async(Task task) override { tasks_.async(std::move(task)); }
  void sync(Task task) override { tasks_.sync(std::move(task)); }

 private:
  TaskQueue tasks_;
};

}  // namespace kva::headless
