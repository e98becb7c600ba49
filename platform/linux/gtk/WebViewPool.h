#pragma once

#include <webkit/webkit.h>

#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

/// Creates web views ahead of time, because starting a web process takes several times as long as
/// loading a small page. The pool keeps one blank view ready, which it creates while the main loop
/// is idle. Each view is used once. Main thread only.
class WebViewPool final : public WebEngine {
 public:
  explicit WebViewPool(ContentViewMaker makeView);

  void prepare() override;
  bool hasReady() const override { return static_cast<bool>(ready_); }
  std::shared_ptr<WebView> makeWebView(Rect frame,
                                       const WebViewConfiguration& configuration) override;

 private:
  GObjectPtr<WebKitWebView> make() const;
  GObjectPtr<WebKitWebView> take();
  void makeReadyAfter(guint milliseconds);
  void makeReady();

  const ContentViewMaker makeView_;
  GObjectPtr<WebKitWebContext> context_;      ///< has none of the host's schemes and extensions
  GObjectPtr<WebKitNetworkSession> session_;  ///< stores nothing on disk
  SignalConnection downloads_, died_;
  GObjectPtr<WebKitWebView> ready_;
  PendingCall next_;
};

}  // namespace kva::gtk
