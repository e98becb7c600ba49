#pragma once

#include <Kelvara/base/Guarded.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "platform/linux_support.h"

namespace kva::story {

/// What the way between a client and its server does to one answer.
enum class Fault {
  none,
  delay,            ///< it comes late
  throttle,         ///< it comes in crumbs
  refuse,           ///< the connection is reset instead
  cutHead,          ///< the connection ends within the header
  cutBody,          ///< the connection ends within the body
  resetBody,        ///< the connection is reset within the body
  garbageBefore,    ///< bytes that are no HTTP come first
  garbageWithin,    ///< bytes of the body are overwritten with others that no JSON text holds
  duplicateBytes,   ///< a piece of the body comes twice, and as many bytes are missing at its end
  duplicateAnswer,  ///< the whole answer comes twice
};
inline constexpr const char* kFaultNames[] = {
    "none",           "delay",           "throttle",        "refuse",
    "cut head",       "cut body",        "reset body",      "garbage before",
    "garbage within", "duplicate bytes", "duplicate answer"};

/// A proxy on loopback that passes HTTP/1.1 exchanges on to a server on this machine and does harm
/// to the answers. Each connection has a thread of its own and its own connection to the server.
/// Where the server is silent for longer than the proxy's patience, the connection is cut.
class FaultProxy {
 public:
  static constexpr std::chrono::microseconds kPatience{250'000};
  /// What befalls the exchange with this number, from 0, whose request had these bytes; called on
  /// the connection's thread.
  using Choose = std::function<Fault(std::size_t number, const std::string& request)>;

  FaultProxy(int serverPort, Choose choose);
  /// Ends every connection.
  ~FaultProxy();

  std::string apiBase() const { return listener_.base() + "/api/v1"; }
  std::size_t exchanges() const { return exchanges_; }
  void setPatience(std::chrono::microseconds patience) { patience_ = patience; }
  bool isIdle() const { return underWay_ == 0; }

 private:
  void accept();
  void serve(int client);
  /// False when the connection is over.
  bool exchange(int client, int server);

  const int serverPort_;
  const Choose choose_;
  const test::LoopbackSocket listener_;
  std::atomic<std::chrono::microseconds> patience_ = kPatience;
  std::atomic<std::size_t> exchanges_ = 0;
  std::atomic<int> underWay_ = 0;
  std::atomic<bool> stopping_ = false;
  Guarded<std::set<int>> clients_;  ///< each has a thread
  std::thread acceptor_;
};

}  // namespace kva::story
