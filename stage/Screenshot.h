#pragma once

#include <gtk/gtk.h>

#include <filesystem>

namespace kva::stage {

/// Saves what `window` shows, pages included, as a PNG; false when it shows nothing or the file
/// cannot be written. Has the window draw a frame first, for which it runs the main loop, at most
/// for a second. Main thread only.
bool saveScreenshot(GtkWindow* window, const std::filesystem::path& file);

}  // namespace kva::stage
