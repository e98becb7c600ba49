#include <Kelvara/base/Fatal.h>

#include <cstdio>
#include <cstdlib>

namespace kva {

void fatal(std::string_view message) {
  std::fprintf(stderr, "Kelvara: fatal: %.*s\n", static_cast<int>(message.size()), message.data());
  std::abort();
}

}  // namespace kva
