#pragma once

#include <memory>

#include "platform/linux/NetworkSession.h"

namespace kva {

/// HTTP over libcurl. One thread runs all transfers, completions and timers of the session, and
/// reuses keep-alive connections. Certificates are always verified against the system's store.
/// The environment variables name the proxy; loopback addresses bypass it. Requests name the SDK
/// and the host in their User-Agent header.
///
/// A request that fails on a keep-alive connection before the first byte of the answer is retried
/// once, on a new connection. A redirect from https to http is refused. An answer of more than
/// 64 MiB, decompressed, fails with `cannotDecodeContentData`.
class CurlSession final : public NetworkSession {
 public:
  explicit CurlSession(const HostIdentity& host);
  /// After `run` has ended.
  ~CurlSession() override;

  void send(URLRequest request, Done done) override;
  void invalidate() override;

  void run() override;
  void stop() override;
  void dropIdleConnections() override;
  bool isSessionThread() const override;
  TimerQueue& timers() override;

 private:
  class Worker;
  std::unique_ptr<Worker> worker_;
};

}  // namespace kva
