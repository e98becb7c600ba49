#pragma once

#include <gtk/gtk.h>

#include <functional>

#include <Kelvara/Geometry.h>

namespace kva::gtk {

/// Decides how a layout widget behaves. Main thread only.
class LayoutClient {
 public:
  virtual ~LayoutClient() = default;
  /// Places the widget's children. They have been measured.
  virtual void allocate(Size size) = 0;
  /// Draws the widget and its children.
  virtual void snapshot(GtkSnapshot* snapshot) = 0;
  /// Whether the widget itself accepts presses within its bounds. Its children decide for
  /// themselves.
  virtual bool takesPresses() const = 0;
  /// Whether the keyboard focus stays where it is when GTK tries to move it.
  virtual bool keepsFocus() const = 0;
};

/// Creates a widget without a size of its own. `client` must outlive it, or be removed with
/// `layoutWidgetDropClient`.
GtkWidget* layoutWidgetNew(LayoutClient* client);
void layoutWidgetDropClient(GtkWidget* widget);

/// Lays out a window as its class does, then calls `placed` with the window's size. `placed` can
/// place a further child over those that the class places.
GtkLayoutManager* windowLayoutNew(std::function<void(int width, int height)> placed);

}  // namespace kva::gtk
