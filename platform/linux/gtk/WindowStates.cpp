#include <platform/linux/gtk/WindowStates.h>

#include <set>
#include <utility>

namespace kva::gtk {

WindowStates::WindowStates(std::function<void()> changed) : changed_(std::move(changed)) {
  toplevels_ = connect<void(guint, guint, guint)>(gtk_window_get_toplevels(), "items-changed",
                                                  [this](guint, guint, guint) { follow(); });
  follow();
}

void WindowStates::follow() {
  auto* toplevels = gtk_window_get_toplevels();
  std::set<GtkWindow*> present;
  for (guint i = 0; i < g_list_model_get_n_items(toplevels); ++i) {
    auto window = GObjectPtr<GtkWindow>(GTK_WINDOW(g_list_model_get_item(toplevels, i)));
    present.insert(window.get());
    if (!windows_.contains(window.get())) watch(window.get());
  }
  const auto isGone = [&](auto& watched) { return !present.contains(watched.first); };
  std::erase_if(windows_, isGone);
  std::erase_if(surfaces_, isGone);
  if (changed_) changed_();
}

void WindowStates::watch(GtkWindow* window) {
  auto& connections = windows_[window];
  const auto tell = [this] {
    if (changed_) changed_();
  };
  connections.push_back(
      connect<void(GParamSpec*)>(window, "notify::is-active", [tell](GParamSpec*) { tell(); }));
  connections.push_back(connect<void()>(window, "unmap", tell));
  connections.push_back(connect<void()>(window, "map", [this, window, tell] {
    watchSurface(window);
    tell();
  }));
  if (gtk_widget_get_mapped(GTK_WIDGET(window))) watchSurface(window);
}

// A window has another surface each time that it is realized.
void WindowStates::watchSurface(GtkWindow* window) {
  auto& connections = surfaces_[window];
  connections.clear();
  connections.push_back(connect<void(GParamSpec*)>(gtk_native_get_surface(GTK_NATIVE(window)),
                                                   "notify::state", [this](GParamSpec*) {
                                                     if (changed_) changed_();
                                                   }));
}

}  // namespace kva::gtk
