#pragma once

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

/// WebKit's engine. It starts no process before the first call.
std::unique_ptr<WebEngine> makeWebEngine();

}  // namespace kva::gtk
