#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

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
inline constexpr Fault kFaults[] = {
    Fault::none,          Fault::delay,          Fault::throttle,       Fault::refuse,
    Fault::cutHead,       Fault::cutBody,        Fault::resetBody,      Fault::garbageBefore,
    Fault::garbageWithin, Fault::duplicateBytes, Fault::duplicateAnswer};
const char* name(Fault fault);

/// A proxy on loopback that passes HTTP/1.1 exchanges on to a server on this machine and does harm
/// to the answers. Each connection has a thread of its own and its own connection to the server.
/// An answer that does not come within `kPatience` counts as never coming: the connection is cut.
class FaultProxy {
 public:
  static constexpr std::chrono::milliseconds kPatience{250};
  /// What befalls the exchange with this number, from 0, whose request had these bytes; called on
  /// the connection's thread.
  using Choose = std::function<Fault(std::size_t number, const std::string& request)>;

  FaultProxy(int serverPort, Choose choose);
  /// Ends every connection.
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  std::string origin() const;  ///< "http://127.0.0.1:12345"
  std::size_t exchanges() const { return exchanges_; }
  bool isIdle() const { return underWay_ == 0; }

 private:
  struct Connection;
  void accept();
  void serve(Connection& connection);
  /// False when the connection is over.
  bool exchange(Connection& connection);
  bool passOn(Connection& connection, const std::string& request, Fault fault);
  bool deliver(Connection& connection, std::string answer, Fault fault);

  const int serverPort_;
  const Choose choose_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<std::size_t> exchanges_ = 0;
  std::atomic<int> underWay_ = 0;
  std::atomic<bool> stopping_ = false;
  std::list<std::unique_ptr<Connection>> connections_;  // of the accepting thread, then the last
  std::thread acceptor_;
};

}  // namespace kva::story
