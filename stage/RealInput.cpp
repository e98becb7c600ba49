#include <stage/RealInput.h>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <gdk/x11/gdkx.h>

#include <cmath>

namespace kva::stage {

namespace {

Display* display() { return gdk_x11_display_get_xdisplay(gdk_display_get_default()); }

Window xWindow(GtkWindow* window) {
  return gdk_x11_surface_get_xid(gtk_native_get_surface(GTK_NATIVE(window)));
}

}  // namespace

void movePointer(GtkWindow* window, double x, double y) {
  double insetX = 0, insetY = 0;
  gtk_native_get_surface_transform(GTK_NATIVE(window), &insetX, &insetY);
  const int scale = gtk_widget_get_scale_factor(GTK_WIDGET(window));
  int rootX = 0, rootY = 0;
  Window child = 0;
  XTranslateCoordinates(display(), xWindow(window), DefaultRootWindow(display()),
                        static_cast<int>(std::lround((x + insetX) * scale)),
                        static_cast<int>(std::lround((y + insetY) * scale)), &rootX, &rootY,
                        &child);
  XTestFakeMotionEvent(display(), -1, rootX, rootY, CurrentTime);
  XSync(display(), False);
}

void pressButton(unsigned button) {
  XTestFakeButtonEvent(display(), button, True, CurrentTime);
  XSync(display(), False);
}

void releaseButton(unsigned button) {
  XTestFakeButtonEvent(display(), button, False, CurrentTime);
  XSync(display(), False);
}

void click(GtkWindow* window, double x, double y) {
  movePointer(window, x, y);
  pressButton();
  releaseButton();
}

void typeKey(GtkWindow* window, unsigned keysym, unsigned held) {
  // There is no window manager to give the window the keyboard.
  XSetInputFocus(display(), xWindow(window), RevertToParent, CurrentTime);
  auto send = [](unsigned sym, Bool down) {
    XTestFakeKeyEvent(display(), XKeysymToKeycode(display(), sym), down, CurrentTime);
  };
  if (held) send(held, True);
  send(keysym, True);
  send(keysym, False);
  if (held) send(held, False);
  XSync(display(), False);
}

}  // namespace kva::stage
