#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kva {

/// A literal text and what replaces it. Where a text agrees with only a part of `target`, no other
/// occurrence begins within that part; this is true of "[@X]" and "\n".
struct Replacement {
  std::string_view target, value;
};

/// Replaces every occurrence of each target, as if the whole text were searched for the first
/// target, the result for the second one, and so on: a value may contain, or complete, a later
/// target. Reads the text once.
std::string replacingInOrder(std::string_view text, std::span<const Replacement> replacements);

}  // namespace kva
