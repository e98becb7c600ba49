#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <map>
#include <vector>

#include <platform/linux/gtk/GObject.h>

namespace kva::gtk {

/// Watches every toplevel of the process, also those that the SDK does not know, and calls
/// `changed` when one comes, goes, is mapped, unmapped, minimised, restored, or becomes or ceases
/// to be the active one. Main thread only.
class WindowStates {
 public:
  explicit WindowStates(std::function<void()> changed);

 private:
  void follow();
  void watch(GtkWindow* window);
  void watchSurface(GtkWindow* window);

  std::function<void()> changed_;
  std::map<GtkWindow*, std::vector<Subscription>> windows_, surfaces_;
  Subscription toplevels_;
};

}  // namespace kva::gtk
