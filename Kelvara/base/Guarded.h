#pragma once

#include <mutex>
#include <utility>

namespace kva {

/// A value that several threads use. Every access locks its mutex. Code inside `with` must not call
/// anything that may access the value again: it would deadlock.
template <class T>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(T value) : value_(std::move(value)) {}

  template <class F>
  decltype(auto) with(F&& use) {
    std::scoped_lock lock(mutex_);
    return std::forward<F>(use)(value_);
  }
  template <class F>
  decltype(auto) with(F&& use) const {
    std::scoped_lock lock(mutex_);
    return std::forward<F>(use)(value_);
  }

  T get() const {
    std::scoped_lock lock(mutex_);
    return value_;
  }
  void set(T value) {
    std::scoped_lock lock(mutex_);
    value_ = std::move(value);
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace kva
