#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

namespace kva::bench {

/// The durations of calls of one kind, in microseconds.
class Series {
 public:
  explicit Series(const char* name) : name_(name) {}

  /// Times `call`, which makes `count` calls, and records the mean duration of one.
  void measure(const std::function<void()>& call, int count = 1) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::micro> taken =
        std::chrono::steady_clock::now() - begin;
    times_.push_back(taken.count() / count);
  }
  void print() {
    std::ranges::sort(times_);
    const auto at = [&](double part) {
      return times_[static_cast<std::size_t>(part * static_cast<double>(times_.size() - 1))];
    };
    double sum = 0;
    for (const double time : times_) sum += time;
    std::printf("%-44s mean %8.1f  median %8.1f  p99 %8.1f  worst %8.1f us (%zu times)\n", name_,
                sum / static_cast<double>(times_.size()), at(0.5), at(0.99), at(1.0),
                times_.size());
  }

 private:
  const char* name_;
  std::vector<double> times_;
};

}  // namespace kva::bench
