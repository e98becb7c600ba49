#pragma once

namespace kva {

class Runtime;

/// Connects the managers that must hear of one another without knowing each other.
void wireManagers(Runtime& runtime);

}  // namespace kva
