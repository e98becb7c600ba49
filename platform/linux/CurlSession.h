#pragma once

#include <memory>
#include <thread>

#include <Kelvara/platform/URLSession.h>

#include "platform/linux/TimerQueue.h"

namespace kva {

/// HTTP over libcurl. One thread runs every transfer and every completion, keeps connections open
/// for reuse, and doubles as a loop on which timers can be scheduled. Certificates are always
/// verified, against the system's store. Proxies are what the environment says, never for this
/// machine's own addresses.
class CurlSession final : public URLSession {
 public:
  CurlSession();
  /// Invalidates. Not on the session's own thread.
  ~CurlSession() override;

  void send(URLRequest request, Done done) override;
  void invalidate() override;

  bool isSessionThread() const;
  /// The timers of the session's thread.
  TimerQueue& timers();

 private:
  class Worker;
  std::unique_ptr<Worker> worker_;
  std::thread thread_;
};

}  // namespace kva
