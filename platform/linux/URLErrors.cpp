#include "platform/linux/URLErrors.h"

#include <Kelvara/platform/ErrorTable.h>

namespace kva {

Error urlError(URLError code) {
  return errorWithRemedy(kURLErrorDomain, static_cast<std::int64_t>(code));
}

}  // namespace kva
