#pragma once

#include <platform/linux/gtk/NativeWebView.h>
#include "gtk/Stage.h"

namespace kva::gtk::test {

/// A page in a window, with a delegate that records its calls.
class WebPage : public testing::Test {
 protected:
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
  WebKitWebView* page() { return std::static_pointer_cast<NativeWebView>(webView)->page(); }
  bool hasReady() { return static_cast<Application&>(app).hasReadyWebView(); }
  std::string evaluate(const std::string& script) { return stage.evaluate(*webView, script); }
  bool comesTrue(const std::string& condition) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; });
  }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<PageRecorder> listener = std::make_shared<PageRecorder>();
  std::shared_ptr<WebView> webView;
};

}  // namespace kva::gtk::test
