#pragma once

#include <webkit/webkit.h>

#include <vector>

#include <platform/linux/gtk/GObject.h>

namespace kva::gtk {

/// Makes web views ahead of time: a new page's process takes several times as long to come up as
/// a small page takes to load. From its making on the pool keeps one blank view ready, made while
/// the main loop is idle; each is used once. Main thread only.
class WebViewPool {
 public:
  WebViewPool();

  /// The ready view, or a new one when there is none. The user script and the settings are the
  /// taker's to set before it loads anything.
  GObjectPtr<WebKitWebView> take();
  bool hasReady() const { return static_cast<bool>(ready_); }

 private:
  GObjectPtr<WebKitWebView> make() const;
  void prepareNext(guint milliseconds);
  void prepare();

  GObjectPtr<WebKitWebContext> context_;      ///< without the host's schemes and extensions
  GObjectPtr<WebKitNetworkSession> session_;  ///< keeps nothing on disk
  Subscription downloads_, died_;
  GObjectPtr<WebKitWebView> ready_;
  PendingCall next_;
};

}  // namespace kva::gtk
