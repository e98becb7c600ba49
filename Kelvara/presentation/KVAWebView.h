#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/platform/WebView.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {

class KVAWebView;

/// Notified of the page's loads and navigations. Main thread.
class KVAWebViewDelegate {
 public:
  virtual ~KVAWebViewDelegate() = default;
  virtual void webViewDidFinishLoad(KVAWebView& webView) = 0;
  virtual void webViewDidFailToLoad(KVAWebView& webView, const Error& error) = 0;
  /// The page's process ended after the page had loaded.
  virtual void webViewProcessDidTerminate(KVAWebView& webView, const Error& error) = 0;
  /// The user followed a link out of the page that the bridge script did not handle, such as one in
  /// a frame. The page stays.
  virtual void webViewDidFollowLink(KVAWebView& webView, const URL& url) = 0;
  /// Called for every navigation; false cancels it. No request means a malformed URL.
  virtual bool webViewShouldAllowNavigation(KVAWebView& webView,
                                            const std::optional<URLRequest>& request) = 0;
};

/// Hosts the creative's page, which fills this view from edge to edge. The page is muted until this
/// view first enters a window. The MRAID script runs before the page's scripts. Script dialogs are
/// dismissed without being shown. Main thread.
class KVAWebView : public ViewDelegate,
                   public WebViewDelegate,
                   public std::enable_shared_from_this<KVAWebView> {
 public:
  /// `safeArea`: whether the ad fills the key window or only its safe area. The page gets that size
  /// at once.
  static std::shared_ptr<KVAWebView> create(Rect frame, SafeArea safeArea);
  ~KVAWebView() override;

  void setDelegate(std::weak_ptr<KVAWebViewDelegate> delegate);
  /// `touched` is called for each press on the page, before the page reacts.
  void setTouched(std::function<void()> touched) { touched_ = std::move(touched); }
  /// The view to place in the ad; owned by this object.
  const std::shared_ptr<View>& view() const { return view_; }

  void loadHTML(const std::string& htmlString, const std::optional<URL>& baseURL);
  /// Does not wait for the script and ignores its result. Always returns true.
  bool executeJavascript(const std::string& script);
  void evaluateJavaScript(const std::string& script, WebView::Evaluated evaluated);

  void viewDidMoveToWindow() override;
  void viewWasTouched() override;
  void webViewDidFinishNavigation() override;
  void webViewDidFailNavigation(const Error& error) override;
  void webViewProcessDidTerminate(const Error& error) override;
  bool webViewDecidePolicy(const NavigationAction& action) override;
  void webViewCreateWebView(const NavigationAction& action) override;
  ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) override;

 private:
  KVAWebView() = default;
  void setup(Rect frame, SafeArea safeArea);

  std::weak_ptr<KVAWebViewDelegate> delegate_;
  std::function<void()> touched_;
  std::shared_ptr<View> view_;
  std::shared_ptr<WebView> webView_;
  bool isMovedToWindow_ = false;
};

}  // namespace kva
