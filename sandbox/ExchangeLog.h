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

  /// Numbers the exchange, stores it and returns it.
  Exchange add(Exchange exchange);
  std::vector<Exchange> list(std::string_view endpoint) const;
  bool waitFor(std::string_view endpoint, const Enough& enough,
               std::chrono::milliseconds limit) const;
  void clear();

 private:
  std::vector<Exchange> selected(std::string_view endpoint) const;

  // The condition variable needs the mutex, so this is not a Guarded.
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::deque<Exchange> exchanges_;
  std::int64_t last_ = 0;
};

/// Formats exchanges for reading: a line with the verdict, then request and response.
std::string plainText(const std::vector<Exchange>& exchanges);

}  // namespace kva::sandbox
