#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <semaphore.h>

#include <Kelvara/platform/DispatchQueue.h>

namespace kva {

/// Whether the caller is the process's first thread.
bool isMainThread();

/// Starts a thread with a name for debuggers. It blocks the signals that are sent to the process,
/// so that the host's threads handle them. It does not block the signals of faults, so that crash
/// reporters work. Throws std::system_error if the system refuses the thread.
std::thread startThread(const std::string& name, std::function<void()> run);

/// A counting semaphore. (std::counting_semaphore of g++ 12 can miss a release.)
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

/// A serial queue with one thread, which ends with the queue. `sync` runs the task on the calling
/// thread while the queue is idle, so that a caller does not wait for the scheduler.
class ThreadQueue final : public SerialQueue {
 public:
  explicit ThreadQueue(const std::string& label);
  /// Waits for the running task, unless that task destroys the queue. Pending tasks are dropped.
  ~ThreadQueue() override;

  void async(Task task) override;
  void sync(Task task) override;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace kva
