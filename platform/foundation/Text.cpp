#include <Kelvara/base/Text.h>

#include <algorithm>

#include <glib.h>

namespace kva {

bool isUTF8(std::string_view bytes) {
  // GLib rejects NUL, so validate the parts between NULs.
  while (true) {
    const std::size_t length = bytes.find('\0');
    if (!g_utf8_validate_len(bytes.data(), std::min(length, bytes.size()), nullptr)) return false;
    if (length == std::string_view::npos) return true;
    bytes.remove_prefix(length + 1);
  }
}

}  // namespace kva
