#pragma once

#include <concepts>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <version>

#include <Kelvara/base/Fatal.h>

// Clang 14 cannot compile libstdc++ 12's std::source_location. Its tools use a replacement.
#if defined(__cpp_lib_source_location)
#include <source_location>
#else
#include <experimental/source_location>
#endif

namespace kva {

#if defined(__cpp_lib_source_location)
using SourceLocation = std::source_location;
#else
using SourceLocation = std::experimental::source_location;
#endif

/// The callback of an asynchronous operation, to be called exactly once. A second call, or in debug
/// builds its destruction without a call, aborts the process and names where it was created.
template <class... Args>
class Completion {
 public:
  template <class F>
  requires(!std::same_as<std::remove_cvref_t<F>, Completion> && std::is_invocable_v<F&, Args...>)
      Completion(F&& call, SourceLocation origin = SourceLocation::current())
      : call_(std::forward<F>(call)), origin_(origin) {}

  Completion(Completion&& other) noexcept
      : call_(std::exchange(other.call_, nullptr)), origin_(other.origin_) {}
  Completion& operator=(Completion&&) = delete;
  ~Completion() {
#ifndef NDEBUG
    if (call_) complain("dropped uncalled");
#endif
  }

  void operator()(Args... args) {
    if (!call_) complain("called twice");
    std::exchange(call_, nullptr)(std::forward<Args>(args)...);
  }

 private:
  [[noreturn]] void complain(const char* what) const {
    fatal("completion made at " + std::string(origin_.file_name()) + ":" +
          std::to_string(origin_.line()) + " was " + what);
  }

  std::move_only_function<void(Args...)> call_;
  SourceLocation origin_;
};

}  // namespace kva
