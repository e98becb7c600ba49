#pragma once

#include <functional>
#include <string>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/LogOutput.h>

namespace kva {

/// Standard output, unbuffered. A closed pipe raises no SIGPIPE. The first write to a full pipe
/// waits up to 100 ms; later lines are dropped at once until there is room again. Thread-safe.
class ProcessOutput final : public LogOutput {
 public:
  void print(LogLevel level, std::string_view text) override;

 private:
  struct State {
    bool isStalled = false;  ///< the last wait for room timed out
    bool isMidLine = false;  ///< the last line was cut
  };
  static void write(State& state, std::string_view text);
  Guarded<State> state_;
};

/// Passes lines to a function of the host, on the thread that logs.
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
