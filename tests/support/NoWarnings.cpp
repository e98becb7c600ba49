// Fails a display test if GLib, GDK, GTK or WebKit logs a warning.
#include <glib.h>
#include <gtest/gtest.h>

#include <memory>
#include <string_view>

namespace {

GLogWriterOutput failOnWarning(GLogLevelFlags level, const GLogField* fields, gsize count,
                               gpointer) {
  if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) {
    const std::unique_ptr<char, decltype(&g_free)> line(
        g_log_writer_format_fields(level, fields, count, FALSE), g_free);
    // Runs under the sanitizers disable GL with GDK_DEBUG, and WebKit warns about that.
    if (!std::string_view(line.get()).contains("disabled via GDK_DEBUG"))
      ADD_FAILURE() << line.get();
  }
  return g_log_writer_default(level, fields, count, nullptr);
}

[[maybe_unused]] const bool isInstalled = [] {
  g_log_set_writer_func(failOnWarning, nullptr, nullptr);
  return true;
}();

}  // namespace
