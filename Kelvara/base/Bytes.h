#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kva {

using Bytes = std::vector<std::byte>;

inline Bytes toBytes(std::string_view text) {
  const auto* begin = reinterpret_cast<const std::byte*>(text.data());
  return {begin, begin + text.size()};
}

/// The bytes as text, without a copy; valid as long as `bytes` is.
inline std::string_view asText(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace kva
