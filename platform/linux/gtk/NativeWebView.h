#pragma once

#include <webkit/webkit.h>

#include <map>
#include <memory>
#include <vector>

#include <Kelvara/platform/WebView.h>
#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

/// A page in WebKit. Its web process is terminated 300 ms after the view is destroyed, or up to
/// 2.1 s after it if the page is busy or its requests have not ended. WebKit does not report
/// which frame of a page navigates: a named target counts as a subframe, an unnamed one as the main
/// frame. Main thread only.
class NativeWebView final : public kva::WebView,
                            public std::enable_shared_from_this<NativeWebView> {
 public:
  /// `page` is new or blank, has no other user, and is the content of `view`. It gets `size` at
  /// once.
  static std::shared_ptr<NativeWebView> create(GObjectPtr<WebKitWebView> page,
                                               std::shared_ptr<ContentView> view, Size size,
                                               const WebViewConfiguration& configuration);
  ~NativeWebView() override;

  WebKitWebView* page() const { return page_.get(); }

  std::shared_ptr<View> view() override { return view_; }
  void setDelegate(std::weak_ptr<WebViewDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  void loadHTML(const std::string& html, const std::optional<URL>& baseURL) override;
  void load(const URLRequest& request) override;
  void setMuted(bool isMuted) override { webkit_web_view_set_is_muted(page(), isMuted); }
  void evaluateJavaScript(const std::string& script, Evaluated evaluated) override;

 private:
  /// The requests of a page that have not ended. Counted from the start, because a page may send
  /// the last ones after it was told of its end and before its view is destroyed.
  class Requests {
   public:
    explicit Requests(WebKitWebView* page)
        : started_(connect<void(WebKitWebResource*, WebKitURIRequest*)>(
              page, "resource-load-started", [this](WebKitWebResource* request, WebKitURIRequest*) {
                running_[request] = connect<void()>(request, "finished",
                                                    [this, request] { running_.erase(request); });
              })) {}
    bool haveEnded() const { return running_.empty(); }

   private:
    std::map<WebKitWebResource*, SignalConnection> running_;
    SignalConnection started_;
  };
  /// The state of the last load, requested or begun by the page itself.
  enum class Load { none, requested, running };

  NativeWebView(GObjectPtr<WebKitWebView> page, std::shared_ptr<ContentView> view);
  void configure(const WebViewConfiguration& configuration);
  void layOut(Size size);
  void redraw();
  void forbidZooming();
  void followLoads();
  void answerQuestions();
  void refuseRequests();
  void watchKeys();

  void warmedUp();
  void loadChanged(WebKitLoadEvent event);
  bool loadFailed(const GError& error);
  void processTerminated();
  bool decideNavigation(WebKitNavigationPolicyDecision* decision,
                        std::optional<NavigationAction::TargetFrame> target);
  /// Ends a page whose navigations leave the main loop no time to draw.
  void watchForFlood();
  bool runDialog(WebKitScriptDialog* dialog);
  template <class Signature>
  void on(const char* signal, std::function<Signature> handler) {
    connections_.push_back(connect<Signature>(page_.get(), signal, std::move(handler)));
  }

  template <class Signature>
  void refuse(const char* signal, std::function<Signature> handler) {
    refusals_.push_back(connect<Signature>(page_.get(), signal, std::move(handler)));
  }

  GObjectPtr<WebKitWebView> page_;
  std::shared_ptr<ContentView> view_;
  std::weak_ptr<WebViewDelegate> delegate_;
  std::unique_ptr<Requests> requests_;
  bool isWarmingUp_;  ///< until the pooled about:blank has loaded; its events are not the ad's
  std::move_only_function<void()> waitingLoad_;
  Load load_ = Load::none;
  std::string startedURI_;
  std::optional<std::string>
      ownNavigation_;  ///< the navigation that `loadHTML` starts, until it is decided
  bool isDrawingAwaited_ = false;
  int navigationsSinceDrawing_ = 0;
  gint64 awaitedSince_ = 0;
  PendingCall drawing_;
  std::vector<SignalConnection> connections_;
  std::vector<SignalConnection> refusals_;  ///< stay connected until the page is destroyed
};

}  // namespace kva::gtk
