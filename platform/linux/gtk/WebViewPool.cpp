#include <platform/linux/gtk/WebViewPool.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include <platform/linux/gtk/NativeWebView.h>

namespace kva::gtk {

namespace {

/// The next web process starts at the latest this long after the last view was taken, even if its
/// page still loads.
constexpr guint kPauseMilliseconds = 1000;
/// How long to wait for the end of an animation.
constexpr guint kAnimationMilliseconds = 50;

/// Settings without the features that an ad could use without a permission request. MediaSession
/// would register a player on the session bus for each medium.
GObjectPtr<WebKitSettings> makeSettings() {
  constexpr std::string_view kWithheld[] = {"MediaSession", "AsyncClipboardAPI"};
  auto settings = GObjectPtr<WebKitSettings>(webkit_settings_new_with_settings(
      "enable-fullscreen", FALSE, "enable-page-cache", FALSE, nullptr));
  g_autoptr(WebKitFeatureList) all = webkit_settings_get_all_features();
  for (gsize i = 0; i < webkit_feature_list_get_length(all); ++i) {
    auto* feature = webkit_feature_list_get(all, i);
    const std::string_view name = webkit_feature_get_identifier(feature);
    if (std::ranges::find(kWithheld, name) != std::end(kWithheld))
      webkit_settings_set_feature_enabled(settings.get(), feature, FALSE);
  }
  return settings;
}

}  // namespace

WebViewPool::WebViewPool(WebSurroundings surroundings, guint keepMilliseconds)
    : surroundings_(std::move(surroundings)),
      keepMilliseconds_(keepMilliseconds),
      context_(GObjectPtr<WebKitWebContext>(webkit_web_context_new())),
      session_(GObjectPtr<WebKitNetworkSession>(webkit_network_session_new_ephemeral())),
      memory_(GObjectPtr<GMemoryMonitor>(g_memory_monitor_dup_default())) {
  downloads_ =
      connect<void(WebKitDownload*)>(session_.get(), "download-started", webkit_download_cancel);
  memoryLow_ = connect<void(GMemoryMonitorWarningLevel)>(
      memory_.get(), "low-memory-warning", [this](GMemoryMonitorWarningLevel) { drop(); });
}

void WebViewPool::prepare() {
  expiry_ = PendingCall::after(keepMilliseconds_, [this] { drop(); });
  if (!ready_.view) makeReadyAfter(0);
}

std::shared_ptr<WebView> WebViewPool::makeWebView(Rect frame,
                                                  const WebViewConfiguration& configuration) {
  auto made = take(frame);
  refillAfterLoadOf(made.page.get());
  return NativeWebView::create(std::move(made.page), std::move(made.view), frame.size(),
                               configuration);
}

WebViewPool::Made WebViewPool::take(Rect frame) {
  if (!ready_.view) return make(frame);
  died_ = {};
  return std::exchange(ready_, {});
}

void WebViewPool::refillAfterLoadOf(WebKitWebView* page) {
  expiry_ = PendingCall::after(keepMilliseconds_, [this] { drop(); });
  makeReadyAfter(kPauseMilliseconds);
  loads_ = connect<void(WebKitLoadEvent)>(
      page, "load-changed",
      [this, isBlank = static_cast<bool>(webkit_web_view_is_loading(page))](
          WebKitLoadEvent event) mutable {
        if (event != WEBKIT_LOAD_FINISHED || std::exchange(isBlank, false)) return;
        if (!ready_.view) makeReadyAfter(0);
      });
}

void WebViewPool::drop() {
  next_.cancel();
  expiry_.cancel();
  loads_ = {};
  died_ = {};
  if (auto dropped = std::exchange(ready_, {}); dropped.view) dropped.view->removeFromSuperview();
}

WebViewPool::Made WebViewPool::make(Rect frame) const {
  auto policies = GObjectPtr<WebKitWebsitePolicies>(
      webkit_website_policies_new_with_policies("autoplay", WEBKIT_AUTOPLAY_ALLOW, nullptr));
  auto scripts = GObjectPtr<WebKitUserContentManager>(webkit_user_content_manager_new());
  auto settings = makeSettings();
  auto page = sink(static_cast<WebKitWebView*>(
      g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_.get(), "network-session",
                   session_.get(), "website-policies", policies.get(), "user-content-manager",
                   scripts.get(), "settings", settings.get(), nullptr)));
  auto view = surroundings_.makeView(frame, GTK_WIDGET(page.get()));
  return {std::move(page), std::move(view)};
}

void WebViewPool::makeReadyAfter(guint milliseconds) {
  next_ = PendingCall::after(
      milliseconds, [this] { makeReady(); }, G_PRIORITY_LOW);
}

void WebViewPool::makeReady() {
  if (surroundings_.isAnimating()) return makeReadyAfter(kAnimationMilliseconds);
  loads_ = {};
  ready_ = make({});
  standBy();
  // Only a load starts the web process.
  webkit_web_view_load_uri(ready_.page.get(), "about:blank");
  died_ = connect<void(WebKitWebProcessTerminationReason)>(
      ready_.page.get(), "web-process-terminated", [this](WebKitWebProcessTerminationReason) {
        drop();
        makeReadyAfter(kPauseMilliseconds);
      });
}

void WebViewPool::standBy() {
  if (!ready_.view || ready_.view->frameInWindow()) return;
  if (auto window = surroundings_.keyWindow())
    window->view()->addSubview(ready_.view, Layout::standby(Layout::Area::plain));
}

}  // namespace kva::gtk
