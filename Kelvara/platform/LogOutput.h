#pragma once

#include <string_view>

namespace kva {

/// Ordered by increasing detail.
enum class LogLevel : int { n = 0, e = 1, i = 2, d = 3 };

/// Writes log lines. Thread-safe; lines of different threads do not mix.
class LogOutput {
 public:
  virtual ~LogOutput() = default;
  /// Writes `text` and a newline. `level` is the level of the line, never n. Returns within a
  /// fraction of a second; a line that cannot be written by then is dropped.
  virtual void print(LogLevel level, std::string_view text) = 0;
};

}  // namespace kva
