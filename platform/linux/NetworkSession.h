#pragma once

#include <string>

#include <Kelvara/base/Result.h>
#include <Kelvara/platform/URLSession.h>

#include "platform/linux/TimerQueue.h"

namespace kva {

/// The host application, as the User-Agent header names it. Empty texts are left out.
struct HostIdentity {
  std::string bundleId, appVersion;
};

/// A session whose thread also runs timers.
class NetworkSession : public URLSession {
 public:
  /// Makes the calling thread the session's own: runs its transfers, completions and timers there
  /// until `stop`. Call it once.
  virtual void run() = 0;
  /// Ends `run`. Only after `invalidate`.
  virtual void stop() = 0;
  /// Later requests use new connections. Thread-safe.
  virtual void dropIdleConnections() = 0;
  virtual bool isSessionThread() const = 0;
  /// The timers that fire on the session's thread.
  virtual TimerQueue& timers() = 0;
};

/// Makes a session, which the caller owns. Any thread.
using NetworkSessionMaker = NetworkSession* (*)(const HostIdentity&);

/// Loads libcurl, unless the program is linked with it. Blocks while the system links the libraries
/// that libcurl needs. Any thread. Fails if the module is missing or has another version.
Result<NetworkSessionMaker> loadNetwork();

}  // namespace kva
