#include <Kelvara/KVAErrorCodes.h>

namespace kva {

std::optional<KVAErrorCodes> errorCodeFromRawValue(int rawValue) {
  if (rawValue < -1 || rawValue > 14) return {};
  return static_cast<KVAErrorCodes>(rawValue);
}

}  // namespace kva
