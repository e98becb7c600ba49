#pragma once

#include <webkit/webkit.h>

#include <vector>

#include <platform/linux/gtk/GObject.h>

namespace kva::gtk {

/// Creates web views ahead of time, because starting a web process takes several times as long as
/// loading a small page. The pool keeps one blank view ready, which it creates while the main loop
/// is idle. Each view is used once. Main thread only.
class WebViewPool {
 public:
  WebViewPool();

  /// Returns the ready view, or a new one if none is ready. The caller sets the user script and the
  /// settings before it loads a page.
  GObjectPtr<WebKitWebView> take();
  bool hasReady() const { return static_cast<bool>(ready_); }

 private:
  GObjectPtr<WebKitWebView> make() const;
  void prepareNext(guint milliseconds);
  void prepare();

  GObjectPtr<WebKitWebContext> context_;      ///< has none of the host's schemes and extensions
  GObjectPtr<WebKitNetworkSession> session_;  ///< stores nothing on disk
  SignalConnection downloads_, died_;
  GObjectPtr<WebKitWebView> ready_;
  PendingCall next_;
};

}  // namespace kva::gtk
