#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace kva::sandbox {

/// The JSON that a client sent. An integer beyond 64 bits with a sign is read as a double. Nothing
/// for any other text, nor for more than 100 levels of nesting: nobody needs them, and whatever
/// walks a value later does so by recursion.
std::optional<nlohmann::json> readJson(std::string_view text);

}  // namespace kva::sandbox
