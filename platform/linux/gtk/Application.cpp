#include <platform/linux/gtk/Application.h>

#include <algorithm>
#include <memory>

#include <Kelvara/base/HostCallback.h>
#include <platform/linux/gtk/NativeButton.h>
#include <platform/linux/gtk/NativeViewController.h>
#include <platform/linux/gtk/UnavailableWebEngine.h>

#ifdef GDK_WINDOWING_X11
#include <gdk/x11/gdkx.h>
#endif

namespace kva::gtk {

namespace {

bool displayReportsActiveWindow(GdkDisplay* display) {
#ifdef GDK_WINDOWING_X11
  if (GDK_IS_X11_DISPLAY(display)) {
    return gdk_x11_screen_supports_net_wm_hint(gdk_x11_display_get_screen(display),
                                               g_intern_static_string("_NET_ACTIVE_WINDOW"));
  }
#endif
  (void)display;
  return true;
}

GObjectPtr<GdkMonitor> monitorOf(GtkWindow* window) {
  auto* display = gdk_display_get_default();
  auto* surface = window ? gtk_native_get_surface(GTK_NATIVE(window)) : nullptr;
  if (surface)
    if (auto* monitor = gdk_display_get_monitor_at_surface(display, surface)) return sink(monitor);
  return GObjectPtr<GdkMonitor>(
      static_cast<GdkMonitor*>(g_list_model_get_item(gdk_display_get_monitors(display), 0)));
}

}  // namespace

Application::Application(Options options)
    : options_(std::move(options)),
      logError_(std::make_shared<std::function<void(const std::string&)>>(options_.logError)) {
  auto* toplevels = gtk_window_get_toplevels();
  const auto adoptFrom = [this, toplevels](guint first, guint count) {
    for (guint i = first; i < first + count; ++i)
      adopt(GObjectPtr<GtkWindow>(GTK_WINDOW(g_list_model_get_item(toplevels, i))).get());
  };
  toplevelsChanged_ = connect<void(guint, guint, guint)>(
      toplevels, "items-changed",
      [adoptFrom](guint position, guint, guint added) { adoptFrom(position, added); });
  adoptFrom(0, g_list_model_get_n_items(toplevels));
  windowsDidChange();
}

void Application::leaveWindows() {
  toplevelsChanged_ = {};
  ownWindowCloses_ = {};
  for (auto& host : std::exchange(windows_, {})) host.window->leave();
  if (auto window = std::exchange(ownWindow_, nullptr)) gtk_window_destroy(window.get());
}

void Application::adopt(GtkWindow* window) {
  windows_.push_back(
      {.window = NativeWindow::create(window, options_.safeAreaInsets,
                                      {.changed = [this] { windowsDidChange(); },
                                       .shown = [this](NativeWindow& shown) { didShow(shown); },
                                       .covered = [this](NativeWindow& one) { didCover(one); },
                                       .destroyed = [this](NativeWindow& gone) { forget(gone); }}),
       .controller = nullptr,
       .wasShown = static_cast<bool>(gtk_widget_get_mapped(GTK_WIDGET(window)))});
}

Application::Windows::iterator Application::find(const NativeWindow& window) {
  return std::ranges::find(windows_, &window, [](auto& host) { return host.window.get(); });
}

std::shared_ptr<ViewController> Application::viewController(GtkWindow* window) {
  auto host =
      std::ranges::find(windows_, window, [](auto& one) { return one.window->gtkWindow(); });
  if (!host->controller) host->controller = NativeViewController::ofHost(host->window);
  return host->controller;
}

std::shared_ptr<ViewController> Application::window() {
  if (!ownWindow_) {
    ownWindow_ = sink(GTK_WINDOW(gtk_window_new()));
    auto* window = ownWindow_.get();
    gtk_window_set_decorated(window, FALSE);
    // Without a window manager, a window has its default size.
    const Size screen = screenSize();
    gtk_window_set_default_size(window, static_cast<int>(screen.width),
                                static_cast<int>(screen.height));
    gtk_window_fullscreen(window);
    ownWindowCloses_ = connect<gboolean()>(window, "close-request", [this] {
      const auto own = std::ranges::find(windows_, ownWindow_.get(),
                                         [](auto& one) { return one.window->gtkWindow(); });
      own->window->cancelRequested();
      return TRUE;
    });
  }
  return viewController(ownWindow_.get());
}

void Application::didCover(const NativeWindow& window) const {
  if (window.gtkWindow() != ownWindow_.get()) return;
  if (window.isCovered())
    gtk_window_present(window.gtkWindow());
  else
    gtk_widget_set_visible(GTK_WIDGET(window.gtkWindow()), FALSE);
}

void Application::didShow(const NativeWindow& window) {
  auto shown = find(window);
  shown->wasShown = true;
  std::rotate(shown, shown + 1, windows_.end());
}

void Application::forget(const NativeWindow& window) {
  if (auto gone = find(window); gone != windows_.end()) windows_.erase(gone);
  windowsDidChange();
}

void Application::windowsDidChange() const {
  screenSize_.reset();
  if (webEngine_) webEngine_->windowsDidChange();
  if (options_.stateChanged) options_.stateChanged();
  auto* key = keyHostWindow();
  const Size size = key ? key->window->frame().size() : Size{};
  if (!options_.shapeChanged || size == Size{}) return;
  options_.shapeChanged(size.width > size.height ? DeviceOrientation::landscapeLeft
                                                 : DeviceOrientation::portrait);
}

const Application::HostWindow* Application::keyHostWindow() const {
  const HostWindow *onScreen = nullptr, *shown = nullptr;
  for (const auto& host : windows_) {
    if (gtk_window_is_active(host.window->gtkWindow())) return &host;
    if (host.window->isOnScreen()) onScreen = &host;
    if (host.wasShown || host.window->gtkWindow() == ownWindow_.get()) shown = &host;
  }
  return onScreen ? onScreen : shown;
}

HostApplication::State Application::state() const {
  auto* key = keyHostWindow();
  if (!key || !key->window->isOnScreen()) return State::background;
  const bool isActive = std::ranges::any_of(
      windows_, [](auto& host) { return gtk_window_is_active(host.window->gtkWindow()); });
  if (isActive) return State::active;
  return displayReportsActiveWindow(gdk_display_get_default()) ? State::inactive : State::active;
}

std::shared_ptr<Window> Application::keyWindow() const {
  auto* key = keyHostWindow();
  return key ? key->window : nullptr;
}

void Application::openURL(const URL& url) {
  if (options_.openURL) {
    const HostCallback callback;
    return options_.openURL(url.absoluteString());
  }
  const std::string& address = url.absoluteString();
  g_app_info_launch_default_for_uri_async(
      address.c_str(), nullptr, nullptr, runAsync,
      asyncData([address, weak = std::weak_ptr(logError_)](GObject*, GAsyncResult* result) {
        g_autoptr(GError) error = nullptr;
        if (g_app_info_launch_default_for_uri_finish(result, &error)) return;
        if (const auto log = weak.lock(); log && *log)
          (*log)("Couldn't open " + address + ": " + error->message);
      }));
}

Size Application::screenSize() const {
  if (screenSize_) return *screenSize_;
  auto* key = keyHostWindow();
  auto* window = key ? key->window->gtkWindow() : nullptr;
  auto monitor = monitorOf(window);
  GdkRectangle area{};
  if (monitor) gdk_monitor_get_geometry(monitor.get(), &area);
  followScreen(window, monitor.get());
  screenSize_ = {static_cast<double>(area.width), static_cast<double>(area.height)};
  return *screenSize_;
}

void Application::followScreen(GtkWindow* window, GdkMonitor* monitor) const {
  screenChanges_.clear();
  const auto forget = [this] { screenSize_.reset(); };
  screenChanges_.push_back(connect<void(guint, guint, guint)>(
      gdk_display_get_monitors(gdk_display_get_default()), "items-changed",
      [forget](guint, guint, guint) { forget(); }));
  if (monitor)
    screenChanges_.push_back(connect<void(GParamSpec*)>(monitor, "notify::geometry",
                                                        [forget](GParamSpec*) { forget(); }));
  auto* surface = window ? gtk_native_get_surface(GTK_NATIVE(window)) : nullptr;
  if (!surface) return;
  for (auto* signal : {"enter-monitor", "leave-monitor"})
    screenChanges_.push_back(
        connect<void(GdkMonitor*)>(surface, signal, [forget](GdkMonitor*) { forget(); }));
}

std::shared_ptr<View> Application::makeView(Rect frame) {
  return std::make_shared<NativeView>(frame);
}

std::shared_ptr<Button> Application::makeButton() { return std::make_shared<NativeButton>(); }

std::shared_ptr<WebView> Application::makeWebView(Rect frame, WebViewConfiguration configuration) {
  return webEngine().makeWebView(frame, configuration);
}

void Application::prepareWebView() {
  if (webEngine_) return webEngine_->prepare();
  // Linking WebKit takes longer than a frame, so a thread of GLib's pool does it first.
  auto loading = GObjectPtr<GTask>(
      g_task_new(nullptr, nullptr, runAsync,
                 asyncData([this, alive = std::weak_ptr(logError_)](GObject*, GAsyncResult*) {
                   if (!alive.lock()) return;
                   // The first button of a process takes longer: it adds the style.
                   makeButton();
                   webEngine().prepare();
                 })));
  g_task_run_in_thread(loading.get(), [](GTask* task, gpointer, gpointer, GCancellable*) {
    g_task_return_boolean(task, loadWebEngine().has_value());
  });
}

WebEngine& Application::webEngine() {
  if (webEngine_) return *webEngine_;
  if (const auto make = loadWebEngine()) {
    webEngine_.reset(
        (*make)({.makeView = [](Rect frame, GtkWidget* content) -> std::shared_ptr<ContentView> {
                   return std::make_shared<NativeView>(frame, content);
                 },
                 .keyWindow = [this] { return keyWindow(); },
                 .isAnimating = [this] { return isAnimating(); }}));
  } else {
    if (*logError_) (*logError_)(make.error().localizedDescription());
    webEngine_ = std::make_unique<UnavailableWebEngine>(make.error());
  }
  return *webEngine_;
}

bool Application::isAnimating() const {
  return std::ranges::any_of(windows_, [](auto& host) { return host.window->isAnimating(); });
}

std::shared_ptr<ViewController> Application::makeViewController() {
  return std::make_shared<NativeViewController>();
}

}  // namespace kva::gtk
