#include "platform/linux/Threads.h"

#include <csignal>
#include <deque>
#include <mutex>
#include <utility>

#include <pthread.h>

#include <Kelvara/base/Guarded.h>

namespace kva {

bool isMainThread() { return gettid() == getpid(); }

namespace {

/// Blocks all signals but those of faults. A new thread inherits the mask of its creator.
class SignalMask {
 public:
  SignalMask() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
      sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  ~SignalMask() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalMask(const SignalMask&) = delete;
  SignalMask& operator=(const SignalMask&) = delete;

 private:
  sigset_t before_;
};

std::thread startMasked(std::function<void()> run) {
  const SignalMask mask;
  return std::thread(std::move(run));
}

}  // namespace

std::thread startThread(const std::string& name, std::function<void()> run) {
  std::thread thread = startMasked(std::move(run));
  pthread_setname_np(thread.native_handle(), name.substr(0, 15).c_str());
  return thread;
}

struct ThreadQueue::State {
  struct Tasks {
    std::deque<Task> waiting;
    bool closed = false;
  };
  Guarded<Tasks> tasks;
  Semaphore available;
  std::mutex running;  ///< held while a task runs

  void run();
  /// Runs the task on the calling thread, if no task runs or waits.
  bool runInline(Task& task);
};

namespace {
thread_local const void* queueOfThisThread = nullptr;
}

void ThreadQueue::State::run() {
  queueOfThisThread = this;
  for (;;) {
    available.acquire();
    const std::scoped_lock lock(running);
    Task task = tasks.with([](Tasks& all) -> Task {
      if (all.closed) return nullptr;
      Task first = std::move(all.waiting.front());
      all.waiting.pop_front();
      return first;
    });
    if (!task) return;
    task();
  }
}

bool ThreadQueue::State::runInline(Task& task) {
  const std::unique_lock lock(running, std::try_to_lock);
  if (!lock || !tasks.with([](const Tasks& all) { return all.waiting.empty(); })) return false;
  const void* outer = std::exchange(queueOfThisThread, this);
  task();
  queueOfThisThread = outer;
  return true;
}

ThreadQueue::ThreadQueue(const std::string& label)
    : state_(std::make_shared<State>()),
      thread_(startThread(label, [state = state_] { state->run(); })) {}

ThreadQueue::~ThreadQueue() {
  auto dropped = state_->tasks.with([](State::Tasks& all) {
    all.closed = true;
    return std::exchange(all.waiting, {});
  });
  state_->available.release();
  if (queueOfThisThread == state_.get())
    thread_.detach();
  else
    thread_.join();
}

void ThreadQueue::async(Task task) {
  state_->tasks.with([&](State::Tasks& all) { all.waiting.push_back(std::move(task)); });
  state_->available.release();
}

void ThreadQueue::sync(Task task) {
  if (queueOfThisThread == state_.get()) return task();
  if (state_->runInline(task)) return;
  auto ran = std::make_shared<Semaphore>();
  async([&task, ran] {
    task();
    ran->release();
  });
  ran->acquire();
}

}  // namespace kva
