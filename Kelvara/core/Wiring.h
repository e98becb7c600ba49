#pragma once

namespace kva {

class Runtime;

/// Connects lower managers to upper ones, whose headers the lower ones must not include.
void wireManagers(Runtime& runtime);

}  // namespace kva
