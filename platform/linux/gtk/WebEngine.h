#pragma once

#include <gtk/gtk.h>

#include <memory>

#include <Kelvara/platform/WebView.h>

namespace kva::gtk {

/// Makes web views and keeps one ready ahead of time. Main thread only.
class WebEngine {
 public:
  virtual ~WebEngine() = default;
  /// Makes one blank view ready while the main loop is idle, unless one is ready.
  virtual void prepare() = 0;
  virtual bool hasReady() const = 0;
  /// Uses the ready view, or makes one if none is ready.
  virtual std::shared_ptr<WebView> makeWebView(Rect frame,
                                               const WebViewConfiguration& configuration) = 0;
};

/// A view that the widget of a page fills. Main thread only.
class ContentView : public View {
 public:
  virtual GtkWidget* widget() const = 0;
  /// Notifies the delegates from the root down to this view of a touch.
  virtual void reportTouch() = 0;
};
using ContentViewMaker = std::shared_ptr<ContentView> (*)(Rect frame, GtkWidget* content);

/// Makes WebKit's engine, which the caller owns. The engine starts no process before its first
/// call. Main thread only.
using WebEngineMaker = WebEngine* (*)(ContentViewMaker makeView);

/// Loads WebKit, unless the program is linked with it. Blocks while the system links the libraries
/// that WebKit needs. Any thread. Fails if the module is missing or has another version.
Result<WebEngineMaker> loadWebEngine();

}  // namespace kva::gtk
