#pragma once

#include <string_view>

namespace kva {

/// True for well-formed UTF-8, which may contain NUL. Implemented by platform/foundation.
bool isUTF8(std::string_view bytes);

}  // namespace kva
