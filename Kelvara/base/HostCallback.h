#pragma once

namespace kva {

/// While one lives, the calling thread runs a callback of the host.
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
