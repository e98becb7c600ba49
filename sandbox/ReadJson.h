#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace kva::sandbox {

/// Reads a client's JSON. Reads an integer beyond 64 bits with a sign as a double. Returns nothing
/// for other text and for more than 100 levels of nesting, because later code visits values
/// recursively.
std::optional<nlohmann::json> readJson(std::string_view text);

}  // namespace kva::sandbox
