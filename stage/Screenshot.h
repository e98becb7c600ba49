#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <filesystem>

// Main thread only.
namespace kva::stage {

/// Has `window` draw once more; runs the main loop for that, at most for a second.
void drawFrame(GtkWindow* window);

/// Saves what `window` shows, pages included, as a PNG; false when it shows nothing or the file
/// cannot be written. Draws a frame first.
bool saveScreenshot(GtkWindow* window, const std::filesystem::path& file);

/// The colour in the middle of what `window` shows, as 0xAARRGGBB; 0 when it shows nothing. Draws
/// a frame first.
std::uint32_t colourInTheMiddle(GtkWindow* window);

}  // namespace kva::stage
