#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>

#include <Kelvara/platform/WebView.h>

namespace kva::gtk {

/// A view that the widget of a page fills. Main thread only.
class ContentView : public View {
 public:
  virtual GtkWidget* widget() const = 0;
  /// Notifies the delegates from the root down to this view of a touch.
  virtual void reportTouch() = 0;
};

/// What a web engine needs to know of the application.
struct WebSurroundings {
  std::function<std::shared_ptr<ContentView>(Rect frame, GtkWidget* content)> makeView;
  /// The window in which a ready view stands by; null if there is none.
  std::function<std::shared_ptr<Window>()> keyWindow;
  /// Whether an ad is appearing or disappearing. Making a view would make it stutter.
  std::function<bool()> isAnimating;
};

/// Makes web views and keeps one ready ahead of time. Main thread only.
class WebEngine {
 public:
  virtual ~WebEngine() = default;
  /// Makes one blank view ready while the main loop is idle, unless one is ready.
  virtual void prepare() = 0;
  virtual bool hasReady() const = 0;
  /// Call when a window may have appeared or disappeared.
  virtual void windowsDidChange() = 0;
  /// Uses the ready view, or makes one if none is ready.
  virtual std::shared_ptr<WebView> makeWebView(Rect frame,
                                               const WebViewConfiguration& configuration) = 0;
};

/// Makes WebKit's engine, which the caller owns. The engine starts no process before its first
/// call. Main thread only.
using WebEngineMaker = WebEngine* (*)(WebSurroundings surroundings);

/// Loads WebKit, unless the program is linked with it. Blocks while the system links the libraries
/// that WebKit needs. Any thread. Fails if the module is missing or has another version.
Result<WebEngineMaker> loadWebEngine();

}  // namespace kva::gtk
