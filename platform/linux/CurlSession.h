#pragma once

#include <memory>
#include <string>
#include <thread>

#include <Kelvara/platform/URLSession.h>

#include "platform/linux/TimerQueue.h"

namespace kva {

/// The host application, as the User-Agent header names it. Empty texts are left out.
struct HostIdentity {
  std::string bundleId, appVersion;
};

/// HTTP over libcurl. One thread runs all transfers, completions and timers of the session, and
/// reuses keep-alive connections. Certificates are always verified against the system's store.
/// The environment variables name the proxy; loopback addresses bypass it. Requests name the SDK
/// and the host in their User-Agent header.
///
/// A request that fails on a keep-alive connection before the first byte of the answer is retried
/// once, on a new connection. A redirect from https to http is refused. An answer of more than
/// 64 MiB, decompressed, fails with `cannotDecodeContentData`.
class CurlSession final : public URLSession {
 public:
  explicit CurlSession(const HostIdentity& host = {});
  /// Invalidates the session. Must not run on the session's own thread.
  ~CurlSession() override;

  void send(URLRequest request, Done done) override;
  void invalidate() override;

  /// Later requests use new connections. Thread-safe.
  void dropIdleConnections();
  bool isSessionThread() const;
  /// The timers that fire on the session's thread.
  TimerQueue& timers();

 private:
  class Worker;
  std::unique_ptr<Worker> worker_;
  std::thread thread_;
};

}  // namespace kva
