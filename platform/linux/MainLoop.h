#pragma once

#include <memory>
#include <thread>

#include <Kelvara/platform/DispatchQueue.h>
#include <Kelvara/platform/RunLoop.h>

namespace kva {

/// The main queue and the main thread's timers, on GLib's default main context. The thread that
/// makes it is the main thread; tasks and timers run when that thread iterates the context, at
/// default priority, also in a loop that one of them runs. When another thread destroys the queue,
/// the main thread destroys the tasks that have not begun, as soon as it iterates the context.
class MainLoop final : public MainQueue {
 public:
  MainLoop();
  ~MainLoop() override;

  void async(Task task) override;
  bool isMainThread() const override;
  Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire);

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread::id mainThread_;
};

}  // namespace kva
