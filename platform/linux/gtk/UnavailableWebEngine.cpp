#include <platform/linux/gtk/UnavailableWebEngine.h>

#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

namespace {

class UnavailableWebView final : public kva::WebView {
 public:
  UnavailableWebView(Rect frame, Error error)
      : view_(std::make_shared<NativeView>(frame)), error_(std::move(error)) {}

  std::shared_ptr<View> view() override { return view_; }
  void setDelegate(std::weak_ptr<WebViewDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  void loadHTML(const std::string&, const std::optional<URL>&) override { fail(); }
  void load(const URLRequest&) override { fail(); }
  void setMuted(bool) override {}
  void evaluateJavaScript(const std::string&, Evaluated evaluated) override {
    if (evaluated) evaluated(failure(error_));
  }

 private:
  void fail() {
    failure_ = PendingCall::after(0, [delegate = delegate_, error = error_] {
      if (const auto alive = delegate.lock()) alive->webViewDidFailNavigation(error);
    });
  }

  const std::shared_ptr<NativeView> view_;
  const Error error_;
  std::weak_ptr<WebViewDelegate> delegate_;
  PendingCall failure_;
};

}  // namespace

std::shared_ptr<WebView> UnavailableWebEngine::makeWebView(Rect frame,
                                                           const WebViewConfiguration&) {
  return std::make_shared<UnavailableWebView>(frame, error_);
}

}  // namespace kva::gtk
