#pragma once

#include <functional>
#include <string>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/LogOutput.h>

namespace kva {

/// Standard output, unbuffered. A closed pipe raises no SIGPIPE. A full one is waited for once, for
/// 100 ms; after that lines are dropped at once until there is room again.
class ProcessOutput final : public LogOutput {
 public:
  void print(LogLevel level, std::string_view text) override;

 private:
  struct State {
    bool isStalled = false;  ///< the last wait for room was in vain
    bool isMidLine = false;  ///< the last line lacks its end
  };
  static void write(State& state, std::string_view text);
  /// For one that always prints.
  Guarded<State> state_;
};

/// A function of the host's own.
class CallbackOutput final : public LogOutput {
 public:
  using Callback = std::function<void(LogLevel level, const std::string& line)>;
  explicit CallbackOutput(Callback callback) : callback_(std::move(callback)) {}
  void print(LogLevel level, std::string_view text) override {
    callback_(level, std::string(text));
  }

 private:
  const Callback callback_;
};

}  // namespace kva
