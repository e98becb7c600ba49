#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/platform/WebView.h>

namespace kva {

class KVAWebView;

/// Hears of the page. Main thread.
class KVAWebViewDelegate {
 public:
  virtual ~KVAWebViewDelegate() = default;
  virtual void webViewDidFinishLoad(KVAWebView& webView) = 0;
  virtual void webViewDidFailToLoad(KVAWebView& webView, const Error& error) = 0;
  /// Asked for every navigation; false cancels it. No request: its URL is none.
  virtual bool webViewShouldAllowNavigation(KVAWebView& webView,
                                            const std::optional<URLRequest>& request) = 0;
};

/// Hosts the creative's page. The page loads and runs in a zero-size holder in the key window until
/// this view stands in a window itself; then it moves in, once, from edge to edge whatever the safe
/// area. The MRAID script runs before the page's own; script dialogs are answered at once and show
/// nothing. Main thread.
class KVAWebView : public ViewDelegate,
                   public WebViewDelegate,
                   public std::enable_shared_from_this<KVAWebView> {
 public:
  static std::shared_ptr<KVAWebView> create(Rect frame);
  ~KVAWebView() override;

  void setDelegate(std::weak_ptr<KVAWebViewDelegate> delegate);
  /// The view to place; owned by this host.
  const std::shared_ptr<View>& view() const { return view_; }

  void loadHTML(const std::string& htmlString, const std::optional<URL>& baseURL);
  /// Does not wait for the script, nor hear of its outcome; always true.
  bool executeJavascript(const std::string& script);
  void evaluateJavaScript(const std::string& script, WebView::Evaluated evaluated);

  void viewDidMoveToWindow() override;
  void webViewDidFinishNavigation() override;
  void webViewDidFailNavigation(const Error& error) override;
  bool webViewDecidePolicy(const NavigationAction& action) override;
  void webViewCreateWebView(const NavigationAction& action) override;
  ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) override;

 private:
  KVAWebView() = default;
  void setup(Rect frame);
  void setupOffsceen();

  std::weak_ptr<KVAWebViewDelegate> delegate_;
  std::shared_ptr<View> view_;
  std::shared_ptr<WebView> webView_;
  std::shared_ptr<View> offscreenView_;
  bool isMovedToWindow_ = false;
};

}  // namespace kva
