// The headless views keep the promises of the view ports; and what that platform offers a test
// beyond them.
#include <string>
#include <vector>

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
    const auto answer = fake(webView).dialog(dialog);
    switch (dialog.kind) {
      case ScriptDialog::Kind::alert:
        return "null";
      case ScriptDialog::Kind::confirm:
        return answer.confirmed ? "true" : "false";
      case ScriptDialog::Kind::prompt:
        return answer.text ? "\"" + *answer.text + "\"" : "null";
    }
    return {};
  }
  static inline const URLSession::Outcome refused_ = failure(URLError::cannotConnectToHost);
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, WebViewContract, Page);

TEST(VirtualTime, RunsWhatIsDueInOneOrderWhateverTheUserSetsTheClockTo) {
  headless::Headless h;
  const Platform platform = h.platform();
  std::vector<std::string> order;
  h.server.reply("/late", "", 0.3);
  for (const auto* path : {"/late", "/unknown"})
    platform.urlSession->send(
        {.url = *URL::parse(h.apiBases.sandbox + path), .headers = {}, .body = {}},
        [&, path](URLSession::Outcome outcome) {
          order.push_back(path + std::string(outcome.error ? " failed" : ""));
        });
  platform.mainQueue->async([&] { order.push_back("main"); });
  auto tick = platform.runLoop->schedule(0.2, Repeats::yes, [&] {
    order.push_back("tick");
    platform.mainQueue->async([&] { order.push_back("after tick"); });
  });
  h.time.run();
  EXPECT_EQ(order, (std::vector<std::string>{"/unknown failed", "main"}));
  order.clear();
  h.time.setNow(1'000'000);
  for (int i = 0; i < 4; ++i) h.time.advance(0.1);
  EXPECT_EQ(order, (std::vector<std::string>{"tick", "after tick", "/late", "tick", "after tick"}));
  EXPECT_DOUBLE_EQ(h.time.now(), 1'000'000.4);
}

TEST(Headless, TapsWhatIsShownAlone) {
  headless::Headless h;
  auto& app = h.application;
  auto window = app.makeWindow();
  int tapped = 0;
  auto button = app.makeButton();
  button->setAction([&] { ++tapped; });
  EXPECT_FALSE(window->tap(button->view())) << "in no window";
  window->view()->addSubview(button->view(), Layout::frame({10, 10, 60, 60}));
  EXPECT_TRUE(window->tap(button->view()));
  auto cover = app.makeView({});
  window->view()->addSubview(cover, Layout::edges(Layout::Area::plain));
  EXPECT_FALSE(window->tap(button->view())) << "covered";
  EXPECT_TRUE(window->activate(button)) << "a key reaches what a finger does not";
  EXPECT_EQ(tapped, 2);
  button->view()->setHidden(true);
  EXPECT_FALSE(window->activate(button));
}

}  // namespace
}  // namespace kva::test
