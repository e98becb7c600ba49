#include <platform/headless/Queues.h>

#include <deque>
#include <mutex>
#include <utility>

#include <Kelvara/base/Guarded.h>

namespace kva::headless {

struct TaskQueue::State {
  Guarded<std::deque<DispatchQueue::Task>> waiting;
  // Held while a task runs, so that two threads do not run tasks of one queue at the same time.
  // Recursive, because a task may call `sync`.
  std::recursive_mutex running;
  bool isRunning = false;  // guarded by `running`

  void runNext() {
    auto task = waiting.with([](auto& tasks) -> DispatchQueue::Task {
      if (tasks.empty()) return nullptr;
      auto first = std::move(tasks.front());
      tasks.pop_front();
      return first;
    });
    if (task) run(task);
  }

  void run(DispatchQueue::Task& task) {
    const bool outer = std::exchange(isRunning, true);
    task();
    isRunning = outer;
  }
};

TaskQueue::TaskQueue(VirtualTime& time) : time_(time), state_(std::make_shared<State>()) {}

void TaskQueue::async(DispatchQueue::Task task) {
  state_->waiting.with([&](auto& tasks) { tasks.push_back(std::move(task)); });
  time_.after(0, [state = std::weak_ptr(state_)] {
    auto alive = state.lock();
    if (!alive) return;
    std::scoped_lock lock(alive->running);
    alive->runNext();
  });
}

void TaskQueue::sync(DispatchQueue::Task task) {
  auto state = state_;
  std::scoped_lock lock(state->running);
  if (!state->isRunning)
    for (auto earlier = state->waiting.with([](auto& tasks) { return tasks.size(); }); earlier > 0;
         --earlier)
      state->runNext();
  state->run(task);
}

}  // namespace kva::headless
