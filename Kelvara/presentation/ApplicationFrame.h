#pragma once

#include <Kelvara/platform/HostApplication.h>

namespace kva {

enum class SafeArea { ignore, respect };

/// The current runtime's application; fatal where there is none, since nothing can be shown there.
HostApplication& hostApplication();

/// The key window's frame; with `SafeArea::respect` what its insets leave of it, counted from its
/// own corner. Zero without a key window. Main thread.
Rect applicationFrame(SafeArea safeArea);

}  // namespace kva
