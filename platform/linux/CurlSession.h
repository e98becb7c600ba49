#pragma once

#include <memory>
#include <string>
#include <thread>

#include <Kelvara/platform/URLSession.h>

#include "platform/linux/TimerQueue.h"

namespace kva {

/// The application that requests are sent for.
struct HostIdentity {
  std::string bundleId, appVersion;
};

/// HTTP over libcurl. One thread runs every transfer and every completion, keeps connections open
/// for reuse, and doubles as a loop on which timers can be scheduled. Certificates are always
/// verified, against the system's store. Proxies are what the environment says, never for this
/// machine's own addresses. Requests name the SDK and the host in their User-Agent header.
///
/// A request that dies on a reused connection before the first byte of an answer is sent once more,
/// on a new connection. A redirect of an encrypted request never leads to plain text. An answer of
/// more than 64 MiB, decompressed, fails with `cannotDecodeContentData`.
class CurlSession final : public URLSession {
 public:
  explicit CurlSession(const HostIdentity& host = {});
  /// Invalidates. Not on the session's own thread.
  ~CurlSession() override;

  void send(URLRequest request, Done done) override;
  void invalidate() override;

  /// Requests that are sent from now on use new connections. Any thread.
  void dropIdleConnections();
  bool isSessionThread() const;
  /// The timers of the session's thread.
  TimerQueue& timers();

 private:
  class Worker;
  std::unique_ptr<Worker> worker_;
  std::thread thread_;
};

}  // namespace kva
