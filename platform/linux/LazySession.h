#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <Kelvara/base/Guarded.h>

#include "platform/linux/NetworkSession.h"
#include "platform/linux/Threads.h"

namespace kva {

/// A session that starts its thread at the first request, and loads the network code there. Until
/// then the process has neither libcurl nor the thread. If the code cannot be loaded, it logs an
/// error and fails every request with it, on a thread for these calls.
class LazySession final : public URLSession {
 public:
  LazySession(HostIdentity host, std::function<void(const std::string&)> logError);
  /// Invalidates the session. Must not run on the session's own thread.
  ~LazySession() override;

  void send(URLRequest request, Done done) override;
  void invalidate() override;
  /// Later requests use new connections. Thread-safe.
  void dropIdleConnections();
  bool isSessionThread() const;
  /// The timers that fire on the session's thread. Only after a call on that thread.
  TimerQueue& timers() { return loaded_.load()->timers(); }

 private:
  struct Exchange {
    URLRequest request;
    Done done;
  };
  struct State {
    std::unique_ptr<NetworkSession> session;
    std::thread thread;
    std::vector<Exchange> waiting;       ///< while the code is loaded
    std::optional<Error> refusal;        ///< of every request from now on
    std::unique_ptr<ThreadQueue> queue;  ///< calls the refused requests' `done`
    std::size_t refused = 0;             ///< calls that `queue` has not finished
  };

  void run();
  void refuse(State& state, Done done);

  const HostIdentity host_;
  const std::function<void(const std::string&)> logError_;
  std::promise<void> loading_;
  std::shared_future<void> isLoaded_ = loading_.get_future().share();  ///< or has failed to load
  std::atomic<NetworkSession*> loaded_ = nullptr;                      ///< `State::session`
  Guarded<State> state_;
};

}  // namespace kva
