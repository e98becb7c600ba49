#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string_view>
#include <vector>

#include "sandbox/State.h"

namespace kva::sandbox {

/// The latest exchanges. Any thread.
class ExchangeLog {
 public:
  using Enough = std::function<bool(const std::vector<Exchange>&)>;

  /// Numbers the exchange and keeps it; returns it as kept.
  Exchange add(Exchange exchange);
  std::vector<Exchange> list(std::string_view endpoint) const;
  bool waitFor(std::string_view endpoint, const Enough& enough,
               std::chrono::milliseconds limit) const;
  void clear();

 private:
  std::vector<Exchange> selected(std::string_view endpoint) const;

  // A condition variable needs the mutex itself, so this is no Guarded.
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::deque<Exchange> exchanges_;
  std::int64_t last_ = 0;
};

/// The exchanges as a page for people: a line with the verdict, then what went each way.
std::string plainText(const std::vector<Exchange>& exchanges);

}  // namespace kva::sandbox
