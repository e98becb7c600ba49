#include <gdk-pixbuf/gdk-pixbuf.h>
#include <platform/linux/gtk/WebViewPool.h>

#include <filesystem>

#include "gtk/WebPage.h"

namespace kva::gtk::test {
namespace {

/// Counts the widgets of a type that are mapped in `widget`.
int count(GType type, GtkWidget* widget) {
  int found = g_type_is_a(G_OBJECT_TYPE(widget), type) && gtk_widget_get_mapped(widget);
  for (auto* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child))
    found += count(type, child);
  return found;
}

enum class Pool { empty, ready };

/// A page whose view comes from a pool.
class WebPages : public WebPage, public testing::WithParamInterface<Pool> {
 protected:
  void make(Rect frame, WebViewConfiguration configuration = {}) override {
    if (GetParam() == Pool::ready) {
      app.prepareWebView();
      ASSERT_TRUE(spinUntil([this] { return hasReady(); }));
    }
    WebPage::make(frame, std::move(configuration));
  }
  /// The red of the pixel in the window's first row.
  int redAt(int x, GtkWindow* window = nullptr) {
    const auto file = std::filesystem::path(testing::TempDir()) / "kelvara-pixel.png";
    EXPECT_TRUE(stage::saveScreenshot(window ? window : stage.gtkWindow, file));
    GObjectPtr<GdkPixbuf> image(gdk_pixbuf_new_from_file(file.c_str(), nullptr));
    std::filesystem::remove(file);
    return gdk_pixbuf_read_pixels(image.get())[x * gdk_pixbuf_get_n_channels(image.get())];
  }
};

TEST_P(WebPages, RunTheUserScriptFirstAndInTheMainFrameOnly) {
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
      {"[typeof navigator.mediaSession, typeof navigator.clipboard]",
       R"(["undefined","undefined"])"},
      {"[history.length, document.referrer, document.hasFocus(), document.hidden,"
       " performance.getEntriesByType('navigation').length, performance.navigation.type]",
       R"([1,"",false,false,0,0])"},
  };
  for (auto& [script, expected] : cases) EXPECT_EQ(evaluate(script), expected);
  EXPECT_EQ(listener->asksFor("about:blank"), 0) << "not a navigation of the page";
}

TEST_P(WebPages, AskBeforeEachNavigationAndNotifyOnceThatTheyLoadedOrFailed) {
  openAndFinish("");
  EXPECT_EQ(webView->view()->window(), stage.window());
  listener->allows = false;
  for (const std::string url : {"mraid://open?url=http%3A%2F%2Fexample.test%2F", "kva://x",
                                "https://example.test/elsewhere?q=%20"}) {
    evaluate("location.href = '" + url + "'");
    EXPECT_TRUE(spinUntil([&] { return listener->asksFor(url) == 1; })) << url;
  }
  evaluate("the earlier commands are complete");
  EXPECT_EQ(listener->finished, 1) << "the page did not navigate";
  EXPECT_EQ(listener->failed, 0);

  // Nothing listens on port 9, and browsers refuse it.
  listener->allows = true;
  webView->load({.url = *URL::parse("http://127.0.0.1:9/"), .headers = {}, .body = {}});
  EXPECT_EQ(listener->failed, 0);
  ASSERT_TRUE(spinUntil([&] { return listener->failed > 0; }));
  evaluate("the earlier commands are complete");
  EXPECT_EQ(listener->failed, 1);
  EXPECT_EQ(listener->finished, 1);
}

TEST_P(WebPages, PassDialogsToTheirDelegateAndOutliveIt) {
  const struct {
    const char *call, *asked;
    ScriptDialogAnswer answer;
    const char* result;
  } cases[] = {
      {"alert('hello')", "hello|", {false, {}}, "null"},
      {"confirm('sure?')", "sure?|", {false, {}}, "false"},
      {"confirm('really?')", "really?|", {true, {}}, "true"},
      {"prompt('name?', 'default')", "name?|default", {false, {}}, "null"},
      {"prompt('name!', 'default')", "name!|default", {true, "text"}, "\"text\""},
  };
  openAndFinish("");
  for (const auto& [call, asked, answer, result] : cases) {
    listener->answer = answer;
    EXPECT_EQ(evaluate(call), result) << call;
    ASSERT_FALSE(listener->dialogs.empty());
    EXPECT_EQ(listener->dialogs.back(), asked);
  }
  listener.reset();
  EXPECT_EQ(evaluate("location.href = 'about:blank#somewhere'; prompt(1)"), "null");

  bool answered = false;
  webView->evaluateJavaScript("1", [&](Result<std::string>) { answered = true; });
  const std::weak_ptr<WebView> watched = webView;
  webView.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_FALSE(answered);
  EXPECT_TRUE(spinUntil([&] { return answered; })) << "with a result or an error";
}

TEST_P(WebPages, FadeTogetherWithTheBlackAroundAndBehindThem) {
  auto ad = std::static_pointer_cast<NativeView>(app.makeView({}));
  ad->setBackgroundColor(Color::black);
  ad->setTransition(0);
  stage.window()->view()->addSubview(ad, Layout::edges(Layout::Area::plain));
  make({0, 0, 400, 480}, {.userScript = "", .isOpaque = false});
  ad->addSubview(webView->view(), Layout::frame({100, 0, 400, 480}));
  loadAndFinish("<div style='position:fixed;inset:0 50% 0 0;background:#f00'></div>");
  const auto reds = [&] {
    return std::vector{redAt(50), redAt(200), redAt(400), redAt(600)};  // the page is at 100 to 500
  };
  const int host = redAt(320);
  ad->setTransition(1);
  EXPECT_TRUE(spinUntil([&] { return reds() == std::vector{0, 255, 0, 0}; }));

  const auto halfOf = [](int red) {
    return testing::AllOf(testing::Ge(red / 2 - 1), testing::Le(red / 2 + 1));
  };
  ad->setTransition(0.5);
  EXPECT_THAT(reds(),
              testing::ElementsAre(halfOf(host), halfOf(host + 255), halfOf(host), halfOf(host)));
  webkit_web_view_terminate_web_process(page());
  EXPECT_TRUE(spinUntil([&] {
    gtk_widget_queue_draw(GTK_WIDGET(page()));
    return redAt(200) < host;
  })) << "WebKit draws nothing";
  EXPECT_THAT(reds(), testing::Each(halfOf(host)));
}

TEST_P(WebPages, RunAndDrawOnStandbyAndCannotObserveThatTheyAreShown) {
  gtk_widget_grab_focus(stage.entry);
  auto* const focus = gtk_window_get_focus(stage.gtkWindow);
  auto holder = app.makeView({});
  make({0, 0, 640, 480});
  webView->loadHTML(
      "<!doctype html><body style='background:#f00' onclick='document.title = 1'><input autofocus>"
      "<script>size = innerWidth + 'x' + innerHeight; noticed = []; frames_ = ticks = 0;"
      "for (const event of ['resize', 'focus', 'blur', 'mousemove', 'click'])"
      "  addEventListener(event, () => noticed.push(event));"
      "(function frame() { ++frames_; requestAnimationFrame(frame) })();"
      "timer = setInterval(() => { const input = document.querySelector('input'); ++ticks;"
      "window.focus(); input.focus(); input.blur(); input.focus() }, 20)</script>",
      std::nullopt);
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 1; }));
  EXPECT_EQ(evaluate("size"), "\"640x480\"") << "the size before it is in a window";
  stage.window()->view()->addSubview(holder, Layout::standby(Layout::Area::plain));
  holder->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  EXPECT_TRUE(comesTrue("frames_ > 10 && ticks > 10 && !document.hidden")) << evaluate("frames_");
  EXPECT_FALSE(holder->window() || webView->view()->window());
  EXPECT_EQ(gtk_window_get_focus(stage.gtkWindow), focus);
  stage.tap({320, 100});
  EXPECT_TRUE(spinUntil([&] { return stage.hostClicks == 1; })) << "the page took the press";
  EXPECT_EQ(evaluate("noticed"), "[]");
  EXPECT_NE(redAt(320), 0xff);

  stage.resize({500, 400});
  EXPECT_TRUE(comesTrue("innerWidth == 500 && innerHeight == 400")) << evaluate("innerWidth");
  evaluate("noticed = []");
  evaluate("requestAnimationFrame = () => {}; clearInterval(timer)");
  int unmapped = 0;
  const auto unmaps = connect<void()>(page(), "unmap", [&] { ++unmapped; });
  const gint64 shown = g_get_monotonic_time();
  stage.window()->view()->addSubview(holder, Layout::edges(Layout::Area::plain));
  EXPECT_EQ(webView->view()->window(), stage.window());
  EXPECT_TRUE(spinUntil([&] { return redAt(320) == 0xff; }));
  RecordProperty("firstPixelMilliseconds", std::to_string((g_get_monotonic_time() - shown) / 1000));
  EXPECT_EQ(unmapped, 0) << "the page must not be drawn again";
  EXPECT_EQ(evaluate("noticed"), "[]");

  // A page that draws nothing by itself is drawn again in another window.
  auto* other = GTK_WINDOW(gtk_window_new());
  gtk_window_present(other);
  static_cast<Application&>(app).viewController(other)->view()->addSubview(
      holder, Layout::edges(Layout::Area::plain));
  EXPECT_TRUE(spinUntil([&] { return redAt(20, other) == 0xff; }));
  gtk_window_destroy(other);
  EXPECT_EQ(listener->finished, 1);
}

TEST_P(WebPages, CannotUseTheHostsURISchemes) {
  static int asked = 0;
  [[maybe_unused]] static const bool isRegistered = [] {  // the process has one default context
    webkit_web_context_register_uri_scheme(
        webkit_web_context_get_default(), "private",
        [](WebKitURISchemeRequest* request, gpointer) {
          ++asked;
          g_autoptr(GInputStream) secret =
              g_memory_input_stream_new_from_data("secret", 6, nullptr);
          webkit_uri_scheme_request_finish(request, secret, 6, "text/plain");
        },
        nullptr, nullptr);
    return true;
  }();
  openAndFinish(
      "<script>fetch('private://x').then(() => { got = true }, () => { got = false })"
      "</script><iframe src='private://y'></iframe>");
  EXPECT_TRUE(comesTrue("got === false"));
  EXPECT_EQ(asked, 0);
}

TEST_P(WebPages, MayBeReleasedByTheirDelegateInAnyCall) {
  for (auto* script :
       {"location = 'kva://x'", "alert(1)", "window.open('https://example.test/')"}) {
    listener->onQuestion = nullptr;
    openAndFinish("");
    listener->onQuestion = [&] { webView.reset(); };
    webView->evaluateJavaScript(script, nullptr);
    EXPECT_TRUE(spinUntil([&] { return !webView; })) << script;
  }
}

TEST_P(WebPages, ShareTheKeyboardWithTheControlsAboveThemButOpenNoMenuOfGtk) {
  auto controller = app.makeViewController();
  auto touches = std::make_shared<ViewRecorder>();
  auto ad = std::make_shared<ControllerRecorder>();
  controller->setDelegate(ad);
  controller->view()->setDelegate(touches);
  int closed = 0;
  auto button = app.makeButton(), another = app.makeButton();
  button->setAction([&] { ++closed; });
  openAndFinish(
      "<a href='kva://followed'>link</a><input>"
      "<script>addEventListener('keydown', e => { lastKey = e.key })</script>");
  controller->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  controller->view()->addSubview(button->view(), Layout::frame({200, 200, 60, 60}));
  controller->view()->addSubview(another->view(), Layout::frame({300, 200, 60, 60}));
  stage.present(controller);

  const auto focusComesTo = [&](const std::shared_ptr<View>& view) {
    auto* widget = std::static_pointer_cast<NativeView>(view)->widget();
    return spinUntil([&] {
      auto* focus = gtk_window_get_focus(stage.gtkWindow);
      return focus && gtk_widget_is_ancestor(focus, widget);
    });
  };
  listener->allows = false;
  EXPECT_TRUE(focusComesTo(webView->view()));
  stage.type(GDK_KEY_Tab);
  ASSERT_TRUE(comesTrue("document.activeElement.tagName == 'A'"));
  EXPECT_EQ(touches->touches, 0);
  stage.type(GDK_KEY_Return);
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor("kva://followed") == 1; }));
  EXPECT_EQ(touches->touches, 1);
  stage.type(GDK_KEY_Escape);
  ASSERT_TRUE(spinUntil([&] { return ad->cancels == 1; }));
  EXPECT_EQ(evaluate("lastKey"), "\"Enter\"") << "the page must not get Escape";

  stage.type(GDK_KEY_Tab);
  ASSERT_TRUE(comesTrue("document.activeElement.tagName == 'INPUT'"));
  stage.type(GDK_KEY_Menu);
  stage.type(GDK_KEY_F10, GDK_KEY_Shift_L);
  stage.type(GDK_KEY_period, GDK_KEY_Control_L);
  stage.type(GDK_KEY_semicolon, GDK_KEY_Control_L);
  stage.type(GDK_KEY_x);
  EXPECT_TRUE(comesTrue("document.activeElement.value === 'x'"));
  stage.pass(0.3);
  EXPECT_EQ(count(GTK_TYPE_POPOVER, GTK_WIDGET(stage.gtkWindow)), 0);
  stage.type(GDK_KEY_Tab);
  ASSERT_TRUE(focusComesTo(button->view()));
  stage.type(GDK_KEY_space);
  ASSERT_TRUE(spinUntil([&] { return closed == 1; }));
  for (auto& next : {another->view(), webView->view()}) {
    stage.type(GDK_KEY_Tab);
    ASSERT_TRUE(focusComesTo(next));
  }
  evaluate("document.querySelector('a').focus(); 0");
  stage.type(GDK_KEY_Tab, GDK_KEY_Shift_L);
  ASSERT_TRUE(focusComesTo(another->view()));
}

INSTANTIATE_TEST_SUITE_P(Pool, WebPages, testing::Values(Pool::empty, Pool::ready),
                         [](const auto& pool) {
                           return std::string(pool.param == Pool::empty ? "Cold" : "Warm");
                         });

class WebViewPools : public WebPage {
 protected:
  int pagesIn(GtkWindow* window) { return count(WEBKIT_TYPE_WEB_VIEW, GTK_WIDGET(window)); }
};

TEST_F(WebViewPools, MakeAViewWhenAnAdIsExpectedAndUseItOnce) {
  kva::test::spinFor(0.1);
  EXPECT_EQ(pagesIn(stage.gtkWindow), 0) << "made before the SDK asked for it";
  app.prepareWebView();
  ASSERT_TRUE(spinUntil([&] { return pagesIn(stage.gtkWindow) == 1; }));
  add();
  load("<script>alert('here'); while (true);</script>");
  EXPECT_EQ(pagesIn(stage.gtkWindow), 1) << "the pooled view, which still loads";
  ASSERT_TRUE(spinUntil([&] { return listener->dialogs.size() == 1; }));
  EXPECT_EQ(listener->finished, 0);
  ASSERT_TRUE(spinUntil([&] { return hasReady(); })) << "the next one, although the page loads";

  gpointer ended = page();
  g_object_add_weak_pointer(G_OBJECT(ended), &ended);
  webView.reset();
  EXPECT_TRUE(spinUntil([&] { return !ended; }));
  stage.tap({320, 200});
  EXPECT_TRUE(spinUntil([&] { return stage.hostClicks == 1; })) << "the warm view took the press";
  auto* other = GTK_WINDOW(gtk_window_new());
  gtk_window_present(other);
  stage.destroyWindow();
  EXPECT_TRUE(spinUntil([&] { return pagesIn(other) == 1; })) << "it moves to the next key window";
  gtk_window_destroy(other);
}

TEST_F(WebViewPools, DropTheViewWhenMemoryRunsLowOrNoAdComes) {
  bool isAnimating = true;
  const WebSurroundings surroundings{
      .makeView = [](Rect frame,
                     GtkWidget* content) { return std::make_shared<NativeView>(frame, content); },
      .keyWindow = [this] { return stage.window(); },
      .isAnimating = [&] { return isAnimating; }};
  WebViewPool pool(surroundings);
  const auto comesReady = [&] { return spinUntil([&] { return pool.hasReady(); }); };
  pool.prepare();
  stage.pass(0.2);
  EXPECT_EQ(pagesIn(stage.gtkWindow), 0) << "an ad appears";
  isAnimating = false;
  ASSERT_TRUE(comesReady());
  for (int time = 0; time < 2; ++time) {
    auto memory = GObjectPtr<GMemoryMonitor>(g_memory_monitor_dup_default());
    g_signal_emit_by_name(memory.get(), "low-memory-warning", G_MEMORY_MONITOR_WARNING_LEVEL_LOW);
    stage.pass(0.2);
    EXPECT_EQ(pagesIn(stage.gtkWindow), 0) << "dropped, and not made again";
    pool.prepare();
    ASSERT_TRUE(comesReady());
  }

  WebViewPool brief(surroundings, 300);
  brief.prepare();
  ASSERT_TRUE(spinUntil([&] { return pagesIn(stage.gtkWindow) == 2; }));
  EXPECT_TRUE(spinUntil([&] { return pagesIn(stage.gtkWindow) == 1; })) << "no ad came";
  stage.pass(0.1);
  EXPECT_TRUE(pool.hasReady());
}

}  // namespace
}  // namespace kva::gtk::test
