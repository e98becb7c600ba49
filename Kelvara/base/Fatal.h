#pragma once

#include <string_view>

namespace kva {

/// Stops the process for a programming error: names the cause on standard error, then aborts.
/// Nothing that a creative or a server sends leads here, but for what its caller documents.
[[noreturn]] void fatal(std::string_view message);

}  // namespace kva
