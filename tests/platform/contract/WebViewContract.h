#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/platform/HostApplication.h>
#include <support/Recorders.h>

namespace kva::test {

/// `Subject` makes an application that shows one window, and has
///   HostApplication& application();
///   std::shared_ptr<Window> window();
///   bool spinUntil(const std::function<bool()>&);  // runs the main loop; false after a limit
///   void letLoad(WebView&);   // finishes the last load, if it does not finish by itself
///   void letFail(WebView&);   // the same for a load that fails
///   void navigatePage(WebView&, const std::string& url);  // location.href = url
///   // Runs the loop until the page has its result; returns it as JSON.
///   std::string runDialog(WebView&, const ScriptDialog&);
template <class Subject>
class WebViewContract : public testing::Test {
 protected:
  WebViewContract() {
    webView = subject.application().makeWebView(
        {0, 0, 200, 200},
        {.userScript = "", .isOpaque = false, .bounces = false, .allowsZooming = false});
    webView->setDelegate(listener);
    subject.window()->view()->addSubview(webView->view(), Layout::frame({0, 0, 200, 200}));
  }
  ~WebViewContract() override {
    if (webView) webView->view()->removeFromSuperview();
  }

  void loadPage() {
    const int before = listener->finished;
    webView->loadHTML("<!doctype html><title>page</title><p>Hello", std::nullopt);
    EXPECT_EQ(listener->finished, before);
    subject.letLoad(*webView);
    ASSERT_TRUE(subject.spinUntil([&] { return listener->finished > before; }));
  }
  /// Waits for an answer of the page. Earlier commands are then complete.
  void settle() {
    bool answered = false;
    webView->evaluateJavaScript("1", [&](Result<std::string>) { answered = true; });
    ASSERT_TRUE(subject.spinUntil([&] { return answered; }));
  }

  Subject subject;
  std::shared_ptr<PageRecorder> listener = std::make_shared<PageRecorder>();
  std::shared_ptr<WebView> webView;
};
TYPED_TEST_SUITE_P(WebViewContract);

TYPED_TEST_P(WebViewContract, AsksBeforeEachNavigationAndNotifiesOnceThatAPageLoadedOrFailed) {
  EXPECT_EQ(this->webView->view()->window(), this->subject.window());
  this->loadPage();
  this->listener->allows = false;
  for (const std::string url : {"mraid://open?url=http%3A%2F%2Fexample.test%2F", "kva://x",
                                "https://example.test/elsewhere?q=%20"}) {
    this->subject.navigatePage(*this->webView, url);
    EXPECT_TRUE(this->subject.spinUntil([&] {
      return !this->listener->asked.empty() && this->listener->asked.back() == url;
    })) << url;
  }
  this->settle();
  EXPECT_EQ(this->listener->finished, 1) << "the page did not navigate";
  EXPECT_EQ(this->listener->failed, 0);

  // Nothing listens on port 9, and browsers refuse it.
  this->listener->allows = true;
  this->webView->load({.url = *URL::parse("http://127.0.0.1:9/"), .headers = {}, .body = {}});
  EXPECT_EQ(this->listener->failed, 0);
  this->subject.letFail(*this->webView);
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->listener->failed > 0; }));
  this->settle();
  EXPECT_EQ(this->listener->failed, 1);
  EXPECT_EQ(this->listener->finished, 1);
}

TYPED_TEST_P(WebViewContract, AnswersScriptsLaterInTheirOrder) {
  this->loadPage();
  std::vector<int> order;
  for (int i = 0; i < 4; ++i) {
    this->webView->evaluateJavaScript("null", nullptr);
    this->webView->evaluateJavaScript("null", [&, i](Result<std::string> value) {
      EXPECT_EQ(value, "null");
      order.push_back(i);
    });
  }
  EXPECT_TRUE(order.empty());
  ASSERT_TRUE(this->subject.spinUntil([&] { return order.size() == 4; }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
}

TYPED_TEST_P(WebViewContract, PassesTheDelegatesAnswersToDialogs) {
  using enum ScriptDialog::Kind;
  this->loadPage();
  const struct {
    ScriptDialog dialog;
    ScriptDialogAnswer answer;
    std::string pageGets;
  } cases[] = {
      {{alert, "hello", ""}, {false, std::nullopt}, "null"},
      {{confirm, "sure?", ""}, {false, std::nullopt}, "false"},
      {{confirm, "really?", ""}, {true, std::nullopt}, "true"},
      {{prompt, "name?", "default"}, {false, std::nullopt}, "null"},
      {{prompt, "name!", "default"}, {true, "text"}, "\"text\""},
  };
  for (const auto& [dialog, answer, pageGets] : cases) {
    this->listener->answer = answer;
    EXPECT_EQ(this->subject.runDialog(*this->webView, dialog), pageGets) << dialog.message;
    ASSERT_FALSE(this->listener->dialogs.empty());
    EXPECT_EQ(this->listener->dialogs.back(), dialog.message + "|" + dialog.defaultText);
  }
}

TYPED_TEST_P(WebViewContract, OutlivesItsDelegateAndIsDestroyedWithPendingAnswers) {
  this->loadPage();
  this->listener.reset();
  this->subject.navigatePage(*this->webView, "about:blank#somewhere");
  this->settle();

  bool answered = false;
  this->webView->evaluateJavaScript("1", [&](Result<std::string>) { answered = true; });
  this->webView->view()->removeFromSuperview();
  const std::weak_ptr<WebView> watched = this->webView;
  this->webView.reset();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
  EXPECT_TRUE(this->subject.spinUntil([&] { return answered; })) << "with a result or an error";
}

REGISTER_TYPED_TEST_SUITE_P(WebViewContract,
                            AsksBeforeEachNavigationAndNotifiesOnceThatAPageLoadedOrFailed,
                            AnswersScriptsLaterInTheirOrder, PassesTheDelegatesAnswersToDialogs,
                            OutlivesItsDelegateAndIsDestroyedWithPendingAnswers);

}  // namespace kva::test
