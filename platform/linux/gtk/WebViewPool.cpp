#include <platform/linux/gtk/WebViewPool.h>

#include <platform/linux/gtk/NativeWebView.h>

namespace kva::gtk {

namespace {
/// The next web process starts late enough not to compete with the page that loads now.
constexpr guint kPauseMilliseconds = 1000;
}  // namespace

WebViewPool::WebViewPool(ContentViewMaker makeView)
    : makeView_(makeView),
      context_(GObjectPtr<WebKitWebContext>(webkit_web_context_new())),
      session_(GObjectPtr<WebKitNetworkSession>(webkit_network_session_new_ephemeral())) {
  downloads_ =
      connect<void(WebKitDownload*)>(session_.get(), "download-started", webkit_download_cancel);
}

void WebViewPool::prepare() {
  if (!ready_) makeReadyAfter(0);
}

std::shared_ptr<WebView> WebViewPool::makeWebView(Rect frame,
                                                  const WebViewConfiguration& configuration) {
  return NativeWebView::create(take(), makeView_, frame, configuration);
}

GObjectPtr<WebKitWebView> WebViewPool::take() {
  auto view = ready_ ? std::move(ready_) : make();
  died_ = {};
  makeReadyAfter(kPauseMilliseconds);
  return view;
}

GObjectPtr<WebKitWebView> WebViewPool::make() const {
  auto policies = GObjectPtr<WebKitWebsitePolicies>(
      webkit_website_policies_new_with_policies("autoplay", WEBKIT_AUTOPLAY_ALLOW, nullptr));
  auto scripts = GObjectPtr<WebKitUserContentManager>(webkit_user_content_manager_new());
  return sink(static_cast<WebKitWebView*>(g_object_new(
      WEBKIT_TYPE_WEB_VIEW, "web-context", context_.get(), "network-session", session_.get(),
      "website-policies", policies.get(), "user-content-manager", scripts.get(), nullptr)));
}

void WebViewPool::makeReadyAfter(guint milliseconds) {
  next_ = PendingCall::after(
      milliseconds, [this] { makeReady(); }, G_PRIORITY_LOW);
}

void WebViewPool::makeReady() {
  ready_ = make();
  // Only a load starts the web process.
  webkit_web_view_load_uri(ready_.get(), "about:blank");
  died_ = connect<void(WebKitWebProcessTerminationReason)>(
      ready_.get(), "web-process-terminated", [this](WebKitWebProcessTerminationReason) {
        ready_ = {};
        makeReadyAfter(kPauseMilliseconds);
      });
}

}  // namespace kva::gtk
