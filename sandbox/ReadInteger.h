#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kva::sandbox {

/// Reads all of `text` as an integer; nothing for any other text.
inline std::optional<std::int64_t> readInteger(std::string_view text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace kva::sandbox
