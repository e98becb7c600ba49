// The contracts of the view ports on the headless platform.
#include <platform/contract/ViewContract.h>
#include <platform/contract/WebViewContract.h>
#include <platform/headless/Headless.h>

namespace kva::test {
namespace {

using namespace headless;

struct Stage {
  HostApplication& application() { return h.application; }
  std::shared_ptr<Window> window() { return window_; }
  std::shared_ptr<ViewController> host() { return window_->viewController(); }
  bool spinUntil(const std::function<bool()>& done) { return h.time.runUntil(done); }
  void pass(double seconds) { h.time.advance(seconds); }
  void resize(Size size) { window_->setFrame({0, 0, size.width, size.height}); }
  void tap(Point point) { window_->tap(point); }
  void pressEscape() { window_->pressEscape(); }
  void hideWindow() { window_->setOnScreen(false); }
  void showWindow() { window_->setOnScreen(true); }
  void destroyWindow() { window_->destroy(); }

  headless::Headless h;
  std::shared_ptr<HeadlessWindow> window_ =
      h.application.makeWindow({0, 0, 640, 480}, {.top = 20, .left = 5, .bottom = 10, .right = 15});
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, ViewContract, Stage);

struct Page : Stage {
  static HeadlessWebView& fake(WebView& webView) { return dynamic_cast<HeadlessWebView&>(webView); }
  void letLoad(WebView& webView) {
    h.time.after(0.05, [&webView] { fake(webView).finishNavigation(); });
  }
  void letFail(WebView& webView) {
    h.time.after(0.05, [&webView] { fake(webView).failNavigation(*refused_.error); });
  }
  void navigatePage(WebView& webView, const std::string& url) { fake(webView).navigate(url); }
  std::string runDialog(WebView& webView, const ScriptDialog& dialog) {
    using enum ScriptDialog::Kind;
    const auto answer = fake(webView).dialog(dialog);
    if (dialog.kind == confirm) return answer.confirmed ? "true" : "false";
    return dialog.kind == prompt && answer.text ? "\"" + *answer.text + "\"" : "null";
  }
  static inline const URLSession::Outcome refused_ = failure(URLError::cannotConnectToHost);
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, WebViewContract, Page);

}  // namespace
}  // namespace kva::test
