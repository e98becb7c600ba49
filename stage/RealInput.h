#pragma once

#include <gtk/gtk.h>

// Real X input for windows on an X display without a window manager.
namespace kva::stage {

/// Moves the pointer to a point of the window's content, in logical pixels.
void movePointer(GtkWindow* window, double x, double y);
void pressButton(unsigned button = 1);
void releaseButton(unsigned button = 1);
/// Types the key `keysym` (GDK_KEY_...) on the window, while the key `held` is down unless it is 0.
void typeKey(GtkWindow* window, unsigned keysym, unsigned held = 0);

void click(GtkWindow* window, double x, double y);

}  // namespace kva::stage
