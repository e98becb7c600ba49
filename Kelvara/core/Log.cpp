#include <Kelvara/core/Log.h>

#include <Kelvara/core/Runtime.h>

namespace kva {

std::optional<LogLevel> logLevelFromRawValue(int rawValue) {
  if (rawValue < 0 || rawValue > 3) return {};
  return static_cast<LogLevel>(rawValue);
}

std::string_view prefix(LogLevel level) {
  switch (level) {
    case LogLevel::n:
      return "";
    case LogLevel::e:
      return "[E]";
    case LogLevel::i:
      return "[I]";
    case LogLevel::d:
      return "[D]";
  }
  return "";
}

Log& Log::shared() { return Runtime::current().get<Log>(); }

void Log::e(std::string_view message) {
  if (shared().logLevel() != LogLevel::n) shared().log(LogLevel::e, message);
}

void Log::i(std::string_view message) {
  if (shared().logLevel() >= LogLevel::i) shared().log(LogLevel::i, message);
}

void Log::d(std::string_view message) {
  if (shared().logLevel() >= LogLevel::d) shared().log(LogLevel::d, message);
}

void Log::log(LogLevel logLevel, std::string_view message) {
  std::string line = logPrefix_.get() + " ";
  line.append(prefix(logLevel)).append(":");
  line.append(" ").append(message);
  Runtime::current().platform().logOutput->print(logLevel, line);
}

}  // namespace kva
