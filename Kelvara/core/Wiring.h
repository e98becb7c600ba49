#pragma once

namespace kva {

class Runtime;

/// Connects managers whose lower one must not include the upper one.
void wireManagers(Runtime& runtime);

}  // namespace kva
