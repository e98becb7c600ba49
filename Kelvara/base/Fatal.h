#pragma once

#include <string_view>

namespace kva {

/// Aborts the process for a programming error, after writing `message` to standard error. Input
/// from a creative or a server must not cause it, except where the calling function documents it.
[[noreturn]] void fatal(std::string_view message);

}  // namespace kva
