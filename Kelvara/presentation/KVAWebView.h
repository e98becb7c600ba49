#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/platform/WebView.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {

class KVAWebView;

/// Notified of what the page does. Main thread.
class KVAWebViewDelegate {
 public:
  virtual ~KVAWebViewDelegate() = default;
  virtual void webViewDidFinishLoad(KVAWebView& webView) = 0;
  virtual void webViewDidFailToLoad(KVAWebView& webView, const Error& error) = 0;
  /// The page's process ended after the page had loaded.
  virtual void webViewProcessDidTerminate(KVAWebView& webView, const Error& error) = 0;
  /// The user followed a link out of the page that the page's script did not take, such as one in
  /// a frame; the page stays.
  virtual void webViewDidFollowLink(KVAWebView& webView, const URL& url) = 0;
  /// Asked for every navigation; false cancels it. No request: its URL is none.
  virtual bool webViewShouldAllowNavigation(KVAWebView& webView,
                                            const std::optional<URLRequest>& request) = 0;
};

/// Hosts the creative's page. The page loads and runs silently in a holder that stands by in the
/// key window, at the size at which it will be shown, until this view stands in a window itself;
/// then it moves in, once, from edge to edge whatever the safe area. The MRAID script runs before
/// the page's own; script dialogs are answered at once and show nothing. Main thread.
class KVAWebView : public ViewDelegate,
                   public WebViewDelegate,
                   public std::enable_shared_from_this<KVAWebView> {
 public:
  /// `safeArea`: whether the ad will fill the key window or its safe area.
  static std::shared_ptr<KVAWebView> create(Rect frame, SafeArea safeArea);
  ~KVAWebView() override;

  void setDelegate(std::weak_ptr<KVAWebViewDelegate> delegate);
  /// `touched` is called for each press on the page, before the page reacts.
  void setTouched(std::function<void()> touched) { touched_ = std::move(touched); }
  /// The view to place; owned by this host.
  const std::shared_ptr<View>& view() const { return view_; }

  void loadHTML(const std::string& htmlString, const std::optional<URL>& baseURL);
  /// Does not wait for the script, nor hear of its outcome; always true.
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
  void setupOffsceen(SafeArea safeArea);

  std::weak_ptr<KVAWebViewDelegate> delegate_;
  std::function<void()> touched_;
  std::shared_ptr<View> view_;
  std::shared_ptr<WebView> webView_;
  std::shared_ptr<View> offscreenView_;
  bool isMovedToWindow_ = false;
};

}  // namespace kva
