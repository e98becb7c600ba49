#pragma once

#include <Kelvara/core/SDKHelper.h>

namespace kva {

/// What the server has set for the application. Any thread.
struct SDKHelper::Settings {
  /// The application record's initial sound state; false (sound on) while there is none.
  static bool isSoundMuted();
};

}  // namespace kva
