#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <platform/linux/gtk/NativeWebView.h>
#include "gtk/Stage.h"

namespace kva::gtk::test {

/// A page in a window, with a delegate that records its calls.
class WebPage : public testing::Test {
 protected:
  struct Listener : WebViewDelegate {
    void webViewDidFinishNavigation() override { ++finished; }
    void webViewDidFailNavigation(const Error&) override { ++failed; }
    void webViewProcessDidTerminate(const Error&) override {}
    bool webViewDecidePolicy(const NavigationAction& action) override {
      asked.push_back(
          (action.request ? action.request->url.absoluteString() : "no URL") +
          (action.target == NavigationAction::TargetFrame::none ? " in a new window" : ""));
      if (onQuestion) onQuestion();
      return allows;
    }
    void webViewCreateWebView(const NavigationAction& action) override {
      windows.push_back(action.request->url.absoluteString());
      if (onQuestion) onQuestion();
    }
    ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog&) override {
      ++dialogs;
      if (onQuestion) onQuestion();
      return {};
    }
    auto asksFor(const std::string& url) const { return std::ranges::count(asked, url); }

    int finished = 0, failed = 0, dialogs = 0;
    bool allows = true;
    std::vector<std::string> asked, windows;
    std::function<void()> onQuestion;
  };

  virtual void make(Rect frame, WebViewConfiguration configuration = {}) {
    webView = app.makeWebView(frame, std::move(configuration));
    webView->setDelegate(listener);
  }
  /// Makes a view and adds it to the window.
  void add(WebViewConfiguration configuration = {}) {
    make({0, 0, 300, 200}, std::move(configuration));
    stage.window()->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  }
  void load(const std::string& html) { webView->loadHTML("<!doctype html>" + html, std::nullopt); }
  void loadAndFinish(const std::string& html) {
    const int before = listener->finished;
    load(html);
    ASSERT_TRUE(spinUntil([&] { return listener->finished > before; }));
    drawFrame(stage.gtkWindow);
  }
  void openAndFinish(const std::string& html, WebViewConfiguration configuration = {}) {
    add(std::move(configuration));
    loadAndFinish(html);
  }
  /// Destroys the view and waits for the end of its page.
  void destroyView() {
    gpointer page = std::static_pointer_cast<NativeWebView>(webView)->page();
    g_object_add_weak_pointer(G_OBJECT(page), &page);
    webView.reset();
    EXPECT_TRUE(spinUntil([&] { return !page; }));
  }
  bool hasReady() { return static_cast<Application&>(app).hasReadyWebView(); }
  std::string evaluate(const std::string& script) { return stage.evaluate(*webView, script); }
  bool comesTrue(const std::string& condition) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; });
  }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<WebView> webView;
};

}  // namespace kva::gtk::test
