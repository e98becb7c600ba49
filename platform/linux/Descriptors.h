#pragma once

#include <set>

namespace kva {

/// Keeps the socket pairs that libcurl opens for itself from the children of the process. libcurl
/// opens them without close-on-exec and offers no hook, so the pairs are told by what the process
/// has before and after. A pair that another thread opens inheritable in between is taken for one.
class SocketPairGuard {
 public:
  /// Before libcurl opens a pair.
  SocketPairGuard();
  /// After it has: marks the new ones close-on-exec.
  ~SocketPairGuard();
  SocketPairGuard(const SocketPairGuard&) = delete;
  SocketPairGuard& operator=(const SocketPairGuard&) = delete;

 private:
  std::set<int> before_;
};

}  // namespace kva
