#pragma once

#include <set>

namespace kva {

/// Marks the socket pairs that libcurl opens close-on-exec, so that child processes do not inherit
/// them. libcurl offers no hook for them, so the guard compares the process's socket pairs before
/// and after. It also marks an inheritable pair that another thread opens in between.
class SocketPairGuard {
 public:
  /// Construct it before libcurl opens a pair.
  SocketPairGuard();
  /// Marks the pairs opened since construction close-on-exec.
  ~SocketPairGuard();
  SocketPairGuard(const SocketPairGuard&) = delete;
  SocketPairGuard& operator=(const SocketPairGuard&) = delete;

 private:
  std::set<int> before_;
};

}  // namespace kva
