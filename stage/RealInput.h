#pragma once

#include <gtk/gtk.h>

// X input as a person makes it, for windows on an X display without a window manager.
namespace kva::stage {

/// Moves the pointer to a point of the window's content, in logical pixels.
void movePointer(GtkWindow* window, double x, double y);
void pressButton(unsigned button = 1);
void releaseButton(unsigned button = 1);
/// Presses and releases the key that gives `keysym` (GDK_KEY_...) on the window, with `held` down
/// unless it is 0.
void typeKey(GtkWindow* window, unsigned keysym, unsigned held = 0);

void click(GtkWindow* window, double x, double y);

}  // namespace kva::stage
