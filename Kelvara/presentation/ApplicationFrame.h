#pragma once

#include <Kelvara/platform/HostApplication.h>

namespace kva {

enum class SafeArea { ignore, respect };

/// Returns the current runtime's application. Fatal on a platform that has none.
HostApplication& hostApplication();

/// Returns the key window's frame, or with `SafeArea::respect` its safe area in the window's own
/// coordinates. Zero without a key window. Main thread.
Rect applicationFrame(SafeArea safeArea);

}  // namespace kva
