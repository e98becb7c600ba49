#pragma once

#include <gtk/gtk.h>

#include <functional>

#include <Kelvara/Geometry.h>

namespace kva::gtk {

/// What decides how a layout widget behaves. Main thread only.
class LayoutClient {
 public:
  virtual ~LayoutClient() = default;
  /// Places the widget's children; all of them have been measured.
  virtual void allocate(Size size) = 0;
  virtual void snapshot(GtkSnapshot* snapshot) = 0;
  /// Whether the widget itself, not its children, takes a press at a point within its bounds.
  virtual bool takesPresses() const = 0;
  /// Whether the keyboard's focus stays where it is when GTK would move it on.
  virtual bool keepsFocus() const = 0;
};

/// A widget without a size of its own that leaves everything to `client`, which must outlive it
/// or be taken off with `layoutWidgetDropClient`.
GtkWidget* layoutWidgetNew(LayoutClient* client);
void layoutWidgetDropClient(GtkWidget* widget);

/// Lays a window out as its class does, and then calls `placed` with its size, so that a child
/// that the class knows nothing of can be placed over the others.
GtkLayoutManager* windowLayoutNew(std::function<void(int width, int height)> placed);

}  // namespace kva::gtk
