// What WebKit's pages do below the ports, and what becomes of them.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <platform/linux/gtk/NativeWebView.h>
#include <stage/RealInput.h>

#include <filesystem>

#include "gtk/Stage.h"
#include "platform/linux_support.h"

namespace kva::gtk::test {
namespace {

/// A page in a window, which notes what its delegate hears.
class WebPages : public testing::Test {
 protected:
  struct Listener : WebViewDelegate {
    void webViewDidFinishNavigation() override { ++finished; }
    void webViewDidFailNavigation(const Error&) override { ++failed; }
    bool webViewDecidePolicy(const NavigationAction& action) override {
      asked.push_back((action.request ? action.request->url.absoluteString() : "no URL") +
                      (action.target == NavigationAction::TargetFrame::none ? " anew" : ""));
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

  void open(const std::string& html, WebViewConfiguration configuration = {}) {
    webView = app.makeWebView({0, 0, 300, 200}, std::move(configuration));
    webView->setDelegate(listener);
    stage.window()->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
    webView->loadHTML("<!doctype html>" + html, std::nullopt);
  }
  void openAndFinish(const std::string& html, WebViewConfiguration configuration = {}) {
    const int before = listener->finished;
    open(html, std::move(configuration));
    ASSERT_TRUE(spinUntil([&] { return listener->finished > before; }));
    drawFrame(stage.gtkWindow);
  }
  std::string evaluate(const std::string& script) {
    std::optional<Result<std::string>> result;
    webView->evaluateJavaScript(script, [&](Result<std::string> value) { result = value; });
    if (!spinUntil([&] { return result.has_value(); })) return "no answer";
    return *result ? **result : result->error().localizedDescription();
  }
  bool comesTrue(const std::string& condition) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; });
  }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<WebView> webView;
};

TEST_F(WebPages, RunTheUserScriptFirstInTheMainFrameOnlyAndAnswerInJson) {
  openAndFinish(
      "<script>seen = typeof mraid + typeof document.body;</script>"
      "<iframe srcdoc='<script>parent.inner = typeof mraid</script>'></iframe>",
      {.userScript = "window.mraid = {};"});
  EXPECT_TRUE(comesTrue("window.inner === 'undefined'"));
  const std::pair<const char*, const char*> cases[] = {
      {"seen", "\"objectobject\""},
      {"({a: [true, null, 'ü', 1.5]})", R"({"a":[true,null,"ü",1.5]})"},
      {"undefined", "null"},
      {"void 0; throw new TypeError('no')", "about:blank:1:34: TypeError: no"},
  };
  for (auto& [script, expected] : cases) EXPECT_EQ(evaluate(script), expected);
  EXPECT_EQ(listener->asksFor("about:blank"), 0) << "no navigation of the creative's";
}

TEST_F(WebPages, LetWhatIsBehindThemShow) {
  stage.window()->view()->setBackgroundColor(Color::black);
  openAndFinish("<div style='position:fixed;inset:0 50% 0 0;background:#f00'></div>",
                {.userScript = "", .isOpaque = false});
  const auto file = std::filesystem::path(testing::TempDir()) / "kelvara-pixel.png";
  const auto redAt = [&](int x) {
    EXPECT_TRUE(stage::saveScreenshot(stage.gtkWindow, file));
    GObjectPtr<GdkPixbuf> image(gdk_pixbuf_new_from_file(file.c_str(), nullptr));
    std::filesystem::remove(file);
    return gdk_pixbuf_read_pixels(image.get())[x * gdk_pixbuf_get_n_channels(image.get())];
  };
  EXPECT_TRUE(spinUntil([&] { return redAt(20) == 0xff; }));
  EXPECT_EQ(redAt(600), 0);
}

TEST_F(WebPages, RunAndDrawInAHolderWithoutSize) {
  auto holder = app.makeView({});
  holder->setClipsToBounds(true);
  stage.window()->view()->addSubview(holder, Layout::frame({}));
  open(
      "<script>frames_ = ticks = 0;"
      "(function frame() { ++frames_; requestAnimationFrame(frame) })();"
      "setInterval(() => ++ticks, 20)</script>");
  holder->addSubview(webView->view(), Layout::frame({0, 0, 1, 1}));
  EXPECT_TRUE(comesTrue("frames_ > 10 && ticks > 10 && !document.hidden")) << evaluate("frames_");
  // The move into the ad's own view, which the page must not notice but for its size.
  stage.window()->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  EXPECT_TRUE(comesTrue("innerWidth == 640 && innerHeight == 480")) << evaluate("innerWidth");
  EXPECT_EQ(listener->finished, 1);
  evaluate("frames_ = 0");
  EXPECT_TRUE(comesTrue("frames_ > 10"));
}

TEST_F(WebPages, AskBeforeEveryWindowAndEveryFramesCommandWithOddAddressesToo) {
  openAndFinish(
      "<a href='https://example.test/blank' target=_blank style='position:fixed;inset:0'>a</a>");
  EXPECT_EQ(evaluate("window.open('https://example.test/opened')"), "null");
  stage.tap({100, 100});
  const std::vector<std::string> both = {"https://example.test/opened",
                                         "https://example.test/blank"};
  ASSERT_TRUE(spinUntil([&] { return listener->windows == both; }));
  EXPECT_EQ(listener->asksFor(both[1] + " anew"), 1);
  EXPECT_EQ(evaluate("location.href"), "\"about:blank\"");

  listener->allows = false;
  stage.tap({100, 100});
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor(both[1] + " anew") == 2; }));
  EXPECT_EQ(listener->windows.size(), 2u) << "refused before it was asked for";

  evaluate(
      "document.body.append(Object.assign(document.createElement('iframe'), {src: 'kva://inner'}));"
      "location = 'mraid://open?url=a%20b|{}'; 0");
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor("mraid://open?url=a%20b%7C%7B%7D") == 1; }));
  EXPECT_EQ(listener->asksFor("kva://inner"), 1);
  EXPECT_EQ(listener->failed, 0);
}

TEST_F(WebPages, SaveNoFileOfAServersAndAskNoOneForItsPassword) {
  std::atomic<int> files = 0;
  kva::test::LoopbackServer server([&](httplib::Server& answers) {
    answers.Get("/", [](const auto&, auto& answer) { answer.set_content("<p>a", "text/html"); });
    answers.Get("/locked", [](const auto&, auto& answer) {
      answer.status = 401;
      answer.set_header("WWW-Authenticate", "Basic realm=\"locked\"");
      answer.set_content("<p>locked", "text/html");
    });
    answers.Get("/attached", [&](const auto&, auto& answer) {
      ++files;
      answer.set_header("Content-Disposition", "attachment; filename=kelvara-refused.txt");
      answer.set_content("text", "text/plain");
    });
  });
  auto* downloads = g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD);
  const auto saved =
      std::filesystem::path(downloads ? downloads : g_get_home_dir()) / "kelvara-refused.txt";
  openAndFinish("");
  webView->load({server.url("/"), "GET", {}, {}});
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 2; }));
  evaluate("location = '/attached'; 0");
  ASSERT_TRUE(spinUntil([&] { return files == 1; }));
  kva::test::spinFor(0.3);
  EXPECT_EQ(evaluate("location.pathname"), "\"/\"");
  EXPECT_FALSE(std::filesystem::exists(saved));

  webView->load({server.url("/locked"), "GET", {}, {}});
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 3; }));
  EXPECT_EQ(evaluate("document.body.innerText"), "\"locked\"");
  EXPECT_EQ(listener->failed, 0);
  EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), 1u) << "no dialog has come up";
}

TEST_F(WebPages, MayBeDroppedByTheirDelegateFromAnyQuestion) {
  for (auto* script :
       {"location = 'kva://x'", "alert(1)", "window.open('https://example.test/')"}) {
    listener->onQuestion = nullptr;
    openAndFinish("");
    listener->onQuestion = [&] { webView.reset(); };
    webView->evaluateJavaScript(script, nullptr);
    EXPECT_TRUE(spinUntil([&] { return !webView; })) << script;
  }
}

TEST_F(WebPages, ShareTheKeyboardWithTheControlsAboveThem) {
  struct Ad : ViewDelegate, ViewControllerDelegate {
    void viewWasTouched() override { ++touches; }
    void viewControllerDidRequestCancel() override { ++cancels; }
    int touches = 0, cancels = 0;
  };
  auto controller = app.makeViewController();
  auto ad = std::make_shared<Ad>();
  controller->setDelegate(ad);
  controller->view()->setDelegate(ad);
  int closed = 0;
  auto button = app.makeButton(), another = app.makeButton();
  button->setAction([&] { ++closed; });
  openAndFinish(
      "<a href='kva://followed'>link</a>"
      "<script>addEventListener('keydown', e => { lastKey = e.key })</script>");
  controller->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  controller->view()->addSubview(button->view(), Layout::frame({200, 200, 60, 60}));
  controller->view()->addSubview(another->view(), Layout::frame({300, 200, 60, 60}));
  bool presented = false;
  stage.host()->present(controller, [&] { presented = true; });
  ASSERT_TRUE(spinUntil([&] { return presented; }));

  const auto type = [&](unsigned key, unsigned held = 0) {
    stage::typeKey(stage.gtkWindow, key, held);
  };
  const auto focusComesTo = [&](const std::shared_ptr<View>& view) {
    auto* widget = std::static_pointer_cast<NativeView>(view)->widget();
    return spinUntil([&] {
      auto* focus = gtk_window_get_focus(stage.gtkWindow);
      return focus && gtk_widget_is_ancestor(focus, widget);
    });
  };
  listener->allows = false;
  EXPECT_TRUE(focusComesTo(webView->view()));
  type(GDK_KEY_Tab);
  ASSERT_TRUE(comesTrue("document.activeElement.tagName == 'A'"));
  EXPECT_EQ(ad->touches, 0);
  type(GDK_KEY_Return);
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor("kva://followed") == 1; }));
  EXPECT_EQ(ad->touches, 1);
  type(GDK_KEY_Escape);
  ASSERT_TRUE(spinUntil([&] { return ad->cancels == 1; }));
  EXPECT_EQ(evaluate("lastKey"), "\"Enter\"") << "the page does not get to see Escape";

  type(GDK_KEY_Tab);
  ASSERT_TRUE(focusComesTo(button->view()));
  type(GDK_KEY_space);
  ASSERT_TRUE(spinUntil([&] { return closed == 1; }));
  for (auto& next : {another->view(), webView->view()}) {
    type(GDK_KEY_Tab);
    ASSERT_TRUE(focusComesTo(next));
  }
  evaluate("document.querySelector('a').focus(); 0");
  type(GDK_KEY_Tab, GDK_KEY_Shift_L);
  ASSERT_TRUE(focusComesTo(another->view()));
}

TEST_F(WebPages, ComeFromAPoolOnceEachAndFinishNoSoonerThanTheirOwnPage) {
  auto& pool = static_cast<Application&>(app).webViewPool();
  ASSERT_TRUE(spinUntil([&] { return pool.hasReady(); }));
  open("<script>alert('here'); while (true);</script>");  // the warm one, still loading perhaps
  EXPECT_FALSE(pool.hasReady());
  ASSERT_TRUE(spinUntil([&] { return listener->dialogs == 1; }));
  EXPECT_EQ(listener->finished, 0);
  ASSERT_TRUE(spinUntil([&] { return pool.hasReady(); }));
}

}  // namespace
}  // namespace kva::gtk::test
