#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <filesystem>

// Main thread only.
namespace kva::stage {

/// Makes `window` draw one frame. Runs the main loop until then, for at most a second.
void drawFrame(GtkWindow* window);

/// Saves the content of `window`, including pages, as a PNG. Draws a frame first. False if the
/// window is not mapped or the file cannot be written.
bool saveScreenshot(GtkWindow* window, const std::filesystem::path& file);

/// The colour of the pixel in the middle of `window`, as 0xAARRGGBB; 0 if the window is not mapped.
/// Draws a frame first.
std::uint32_t colourInTheMiddle(GtkWindow* window);

}  // namespace kva::stage
