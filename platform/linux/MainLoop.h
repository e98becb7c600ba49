#pragma once

#include <memory>
#include <thread>

#include <Kelvara/platform/DispatchQueue.h>
#include <Kelvara/platform/RunLoop.h>

namespace kva {

/// The main queue and the main thread's timers, on GLib's default main context. The constructing
/// thread is the main thread. Tasks and timers run at default priority when that thread iterates
/// the context, also in a nested loop. If another thread destroys the queue, the main thread
/// destroys the pending tasks in its next iteration.
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
