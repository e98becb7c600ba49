#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// What every target defines: plays one input, the bytes of one file of its corpus.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kva::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Takes what stands before the next `mark` off the front of `rest`.
inline std::string_view cut(std::string_view& rest, std::string_view mark) {
  const auto at = rest.find(mark);
  const auto piece = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + mark.size());
  return piece;
}

/// A promise that does not hold ends the run as a crash does.
inline void expect(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

}  // namespace kva::fuzz
