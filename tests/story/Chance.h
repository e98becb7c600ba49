#pragma once

#include <cstdlib>
#include <random>

namespace kva::story {

/// Reads a whole number from the environment: the length of a long run, or a seed.
inline std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

/// Random choices. The same seed makes the same choices.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) : engine_(seed) {}

  /// From 0 to `limit` - 1.
  std::size_t below(std::size_t limit) { return engine_() % limit; }
  bool oneIn(std::size_t odds) { return below(odds) == 0; }
  template <class List>
  const auto& oneOf(const List& list) {
    return std::data(list)[below(std::size(list))];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace kva::story
