#pragma once

#include <string>
#include <string_view>

namespace kva {

/// The MD5 digest (RFC 1321) as 32 lower-case hexadecimal digits. Implemented by
/// platform/foundation.
std::string md5Hex(std::string_view bytes);

}  // namespace kva
