#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <functional>

namespace kva::test {

/// Turns the main loop until `done`; false when that takes too long.
inline bool spinUntil(const std::function<bool()>& done, double seconds = 10) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  // Wakes the loop often enough to look at what other threads have brought about.
  const guint wake = g_timeout_add(
      5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
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
