#pragma once

namespace kva {

/// Marks a scope in which the calling thread runs a callback of the host.
class HostCallback {
 public:
  HostCallback() { ++depth_; }
  ~HostCallback() { --depth_; }
  HostCallback(const HostCallback&) = delete;
  HostCallback& operator=(const HostCallback&) = delete;

  static bool isRunning() { return depth_ > 0; }

 private:
  static inline thread_local int depth_ = 0;
};

}  // namespace kva
