#pragma once

#include <Kelvara/core/SDKHelper.h>

namespace kva {

/// The server's settings for the application. Any thread.
struct SDKHelper::Settings {
  /// The initial sound state of the application record; false (sound on) without a record.
  static bool isSoundMuted();
};

}  // namespace kva
