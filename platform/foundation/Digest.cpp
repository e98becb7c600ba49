#include <Kelvara/base/Digest.h>

#include <memory>

#include <glib.h>

namespace kva {

std::string md5Hex(std::string_view bytes) {
  std::unique_ptr<char, decltype(&g_free)> digest(
      g_compute_checksum_for_data(G_CHECKSUM_MD5, reinterpret_cast<const guchar*>(bytes.data()),
                                  bytes.size()),
      &g_free);
  return digest.get();
}

}  // namespace kva
