#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <platform/linux/gtk/NativeWebView.h>
#include "gtk/Display.h"

namespace kva::gtk::test {

/// A page in a window, which notes all that its delegate hears.
class WebPage : public testing::Test {
 protected:
  struct Listener : WebViewDelegate {
    void webViewDidFinishNavigation() override { ++finished; }
    void webViewDidFailNavigation(const Error& error) override { errors.push_back(error); }
    bool webViewDecidePolicy(const NavigationAction& action) override {
      asked.push_back(action);
      return !decide || decide(action);
    }
    void webViewCreateWebView(const NavigationAction& action) override {
      windows.push_back(action);
    }
    ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog&) override {
      ++dialogs;
      return {};
    }
    int asksFor(const std::string& url) const {
      int count = 0;
      for (auto& one : asked) count += one.request && one.request->url.absoluteString() == url;
      return count;
    }

    int finished = 0, dialogs = 0;
    std::vector<Error> errors;
    std::vector<NavigationAction> asked, windows;
    std::function<bool(const NavigationAction&)> decide;
  };

  void open(const std::string& html, WebViewConfiguration configuration = {}) {
    webView = app.makeWebView({0, 0, 300, 200}, std::move(configuration));
    webView->setDelegate(listener);
    stage.window()->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
    webView->loadHTML("<!doctype html>" + html, baseURL);
  }
  void openAndFinish(const std::string& html, WebViewConfiguration configuration = {}) {
    open(html, std::move(configuration));
    ASSERT_TRUE(spinUntil([&] { return listener->finished > 0; }));
    waitForFrame(stage.gtkWindow);
  }
  std::string evaluate(const std::string& script) {
    std::optional<Result<std::string>> result;
    webView->evaluateJavaScript(script, [&](Result<std::string> value) { result = value; });
    spinUntil([&] { return result.has_value(); });
    if (!result) return "no answer";
    return *result ? **result : result->error().localizedDescription();
  }
  bool comesTrue(const std::string& condition) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; });
  }
  WebKitWebView* page() { return std::static_pointer_cast<NativeWebView>(webView)->page(); }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<WebView> webView;
  std::optional<URL> baseURL;
};

}  // namespace kva::gtk::test
