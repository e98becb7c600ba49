#pragma once

#include <webkit/webkit.h>

#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

/// Creates web views ahead of time, because starting a web process takes several times as long as
/// loading a small page. The pool keeps one blank view on standby in the key window: WebKit starts
/// drawing only in a window. Each view is used once; its successor is made after its page has
/// loaded. The pool drops a view when memory runs low, and when no ad was expected for a while.
/// Main thread only.
class WebViewPool final : public WebEngine {
 public:
  static constexpr guint kKeepMilliseconds = 5 * 60 * 1000;

  /// Drops a view `keepMilliseconds` after the last ad was expected or loaded.
  explicit WebViewPool(WebSurroundings surroundings, guint keepMilliseconds = kKeepMilliseconds);
  ~WebViewPool() override { drop(); }

  void prepare() override;
  bool hasReady() const override { return ready_.view && !isLoading(); }
  void windowsDidChange() override { standBy(); }
  std::shared_ptr<WebView> makeWebView(Rect frame,
                                       const WebViewConfiguration& configuration) override;

 private:
  struct Made {
    GObjectPtr<WebKitWebView> page;
    std::shared_ptr<ContentView> view;
  };
  Made make(Rect frame) const;
  Made take(Rect frame);
  bool isLoading() const { return webkit_web_view_is_loading(ready_.page.get()); }
  void drop();
  void makeReadyAfter(guint milliseconds);
  void makeReady();
  void standBy();
  void refillAfterLoadOf(WebKitWebView* page);

  const WebSurroundings surroundings_;
  const guint keepMilliseconds_;
  GObjectPtr<WebKitWebContext> context_;      ///< has none of the host's schemes and extensions
  GObjectPtr<WebKitNetworkSession> session_;  ///< stores nothing on disk
  GObjectPtr<GMemoryMonitor> memory_;
  SignalConnection downloads_, memoryLow_, died_, loads_;
  Made ready_;
  PendingCall next_, expiry_;
};

}  // namespace kva::gtk
