#pragma once

#include <atomic>
#include <concepts>
#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/LogOutput.h>

namespace kva {

std::optional<LogLevel> logLevelFromRawValue(int rawValue);
/// The prefix of a line of this level, such as "[E]".
std::string_view prefix(LogLevel level);

/// The SDK's log: lines such as "<KVA> [E]: message". Any thread.
class Log {
 public:
  static Log& shared();

  LogLevel logLevel() const { return logLevel_; }
  void setLogLevel(LogLevel logLevel) { logLevel_ = logLevel; }
  void setLogPrefix(std::string logPrefix) { logPrefix_.set(std::move(logPrefix)); }

  static void e(std::string_view message);  ///< printed unless the level is n
  static void i(std::string_view message);  ///< printed from level i on
  static void d(std::string_view message);  ///< printed at level d
  template <std::integral T>
  static void e(T value) {
    e(std::to_string(value));
  }
  template <std::integral T>
  static void i(T value) {
    i(std::to_string(value));
  }
  template <std::integral T>
  static void d(T value) {
    d(std::to_string(value));
  }

 private:
  void log(LogLevel logLevel, std::string_view message);

  Guarded<std::string> logPrefix_{"<KVA>"};
  std::atomic<LogLevel> logLevel_{LogLevel::i};
};

}  // namespace kva
