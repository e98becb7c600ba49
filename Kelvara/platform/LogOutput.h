#pragma once

#include <string_view>

namespace kva {

/// In order of increasing detail.
enum class LogLevel : int { n = 0, e = 1, i = 2, d = 3 };

/// Where log lines go. Thread-safe; lines of several threads do not mix.
class LogOutput {
 public:
  virtual ~LogOutput() = default;
  /// Writes `text`, a line of `level` (never n), and a newline. Returns within a fraction of a
  /// second; a line that cannot be written by then is dropped.
  virtual void print(LogLevel level, std::string_view text) = 0;
};

}  // namespace kva
