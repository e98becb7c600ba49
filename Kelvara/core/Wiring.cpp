#include <Kelvara/core/Wiring.h>

namespace kva {

void wireManagers(Runtime&) {}

}  // namespace kva
