#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <semaphore.h>

#include <Kelvara/platform/DispatchQueue.h>

namespace kva {

/// Whether the process's first thread calls.
bool isMainThread();

/// A thread of the SDK's own, named for debuggers. It blocks the signals that are sent to the
/// process, which are the host's. Those that a fault raises stay open, for crash reporters.
/// Throws std::system_error if the system refuses the thread.
std::thread startThread(const std::string& name, std::function<void()> run);

/// Counts permits; a thread that waits for one sleeps. (The standard library's own can sleep
/// through a release in the version that this code is built with.)
class Semaphore {
 public:
  Semaphore() { sem_init(&semaphore_, 0, 0); }
  ~Semaphore() { sem_destroy(&semaphore_); }
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;
  void release() { sem_post(&semaphore_); }
  void acquire() {
    while (sem_wait(&semaphore_) != 0) {
    }
  }

 private:
  sem_t semaphore_;
};

/// A serial queue with a thread that lives as long as the queue.
class ThreadQueue final : public SerialQueue {
 public:
  explicit ThreadQueue(const std::string& label);
  /// Waits for the task that runs, unless that task is the one that lets the queue go.
  ~ThreadQueue() override;

  void async(Task task) override;
  void sync(Task task) override;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace kva
