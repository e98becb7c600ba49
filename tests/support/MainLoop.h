#pragma once

#include <glib.h>

#include <chrono>
#include <functional>

namespace kva::test {

/// Runs the main loop until `done`. False after `seconds`.
inline bool spinUntil(const std::function<bool()>& done, double seconds = 30) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  // Wakes the loop every millisecond, because other threads may change what `done` reads.
  const guint wake = g_timeout_add(
      1, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool isDone = done();
  while (!isDone && std::chrono::steady_clock::now() < limit) {
    g_main_context_iteration(nullptr, TRUE);
    isDone = done();
  }
  g_source_remove(wake);
  return isDone;
}

inline void spinFor(double seconds) {
  spinUntil([] { return false; }, seconds);
}

}  // namespace kva::test
