#pragma once

#include <functional>
#include <memory>

#include <Kelvara/platform/WebView.h>

namespace kva::gtk {

/// What a web engine needs to know of the application.
struct WebSurroundings {
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

/// WebKit's engine. It starts no process before the first call.
std::unique_ptr<WebEngine> makeWebEngine(WebSurroundings surroundings);

}  // namespace kva::gtk
