// The contract of the view ports on the headless platform.
#include <platform/contract/ViewContract.h>
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

// A test plays the page of this view, so its contract is small.
TEST(HeadlessWebView, PassesDialogsToItsDelegateAndAnswersScriptsLater) {
  headless::Headless h;
  const auto page = h.application.makeWebView({}, {});
  auto& webView = dynamic_cast<HeadlessWebView&>(*page);
  const auto delegate = std::make_shared<PageRecorder>();
  delegate->answer = {true, "text"};
  webView.setDelegate(delegate);
  EXPECT_EQ(webView.dialog({ScriptDialog::Kind::prompt, "name?", "default"}).text, "text");
  EXPECT_THAT(delegate->dialogs, testing::ElementsAre("name?|default"));
  Result<std::string> answer = "none";
  webView.evaluateJavaScript("1", [&](Result<std::string> value) { answer = value; });
  EXPECT_EQ(answer, "none");
  h.time.run();
  EXPECT_EQ(answer, "null");
}

}  // namespace
}  // namespace kva::test
