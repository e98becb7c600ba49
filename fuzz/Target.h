#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// Every target defines this function. It runs one input, such as a file of the target's corpus.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kva::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Removes the text up to the next `mark` from the front of `rest` and returns it.
inline std::string_view cut(std::string_view& rest, std::string_view mark) {
  const auto at = rest.find(mark);
  const auto piece = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + mark.size());
  return piece;
}

/// Aborts when a promise does not hold.
inline void expect(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

}  // namespace kva::fuzz
