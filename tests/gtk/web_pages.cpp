// What pages can do, what they cannot, and what becomes of them.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <stage/RealInput.h>
#include <stage/Screenshot.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "gtk/WebPage.h"

namespace kva::gtk::test {
namespace {

using WebPages = WebPage;

TEST_F(WebPages, RunTheUserScriptBeforeTheirOwnInTheMainFrameOnly) {
  openAndFinish(
      "<script>seen = typeof mraid + typeof document.body;</script>"
      "<iframe srcdoc='<script>parent.inner = typeof mraid</script>'></iframe>",
      {.userScript = "window.mraid = {};"});
  EXPECT_TRUE(comesTrue("window.inner === 'undefined'"));
  EXPECT_EQ(evaluate("seen"), "\"objectobject\"");
  EXPECT_EQ(listener->asksFor("about:blank"), 0) << "no navigation of the creative's";
}

TEST_F(WebPages, AnswerScriptsInJsonOrWithWhatTheyThrew) {
  openAndFinish("");
  const std::pair<const char*, const char*> cases[] = {
      {"1.5", "1.5"},
      {"({a: [true, null, 'ü']})", R"({"a":[true,null,"ü"]})"},
      {"undefined", "null"},
      {"void 0; throw new TypeError('no')", "about:blank:1:34: TypeError: no"},
  };
  for (auto& [script, expected] : cases) EXPECT_EQ(evaluate(script), expected);
}

/// The colour of the window's pixel at a point, as 0xRRGGBB.
unsigned pixelAt(GtkWindow* window, int x, int y) {
  const auto file = std::filesystem::path(testing::TempDir()) / "kelvara-pixel.png";
  EXPECT_TRUE(stage::saveScreenshot(window, file));
  GObjectPtr<GdkPixbuf> image(gdk_pixbuf_new_from_file(file.c_str(), nullptr));
  std::filesystem::remove(file);
  auto* pixel = gdk_pixbuf_read_pixels(image.get()) + y * gdk_pixbuf_get_rowstride(image.get()) +
                x * gdk_pixbuf_get_n_channels(image.get());
  return static_cast<unsigned>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]);
}

TEST_F(WebPages, LetWhatIsBehindThemShowUnlessTheyAreOpaque) {
  stage.window()->view()->setBackgroundColor(Color::black);
  for (const bool isOpaque : {false, true}) {
    listener->finished = 0;
    openAndFinish(
        "<div style='position:fixed;left:0;top:0;width:50px;height:50px;"
        "background:#f00'></div>",
        {.userScript = "", .isOpaque = isOpaque});
    auto pixel = [&](int x) { return pixelAt(stage.gtkWindow, x, 20); };
    EXPECT_TRUE(spinUntil([&] { return pixel(20) == 0xff0000; })) << std::hex << pixel(20);
    EXPECT_EQ(pixel(200), isOpaque ? 0xffffffu : 0u);
    webView->view()->removeFromSuperview();
  }
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
  auto adView = app.makeView({});
  stage.window()->view()->addSubview(adView, Layout::edges(Layout::Area::plain));
  adView->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  EXPECT_TRUE(comesTrue("innerWidth == 640 && innerHeight == 480")) << evaluate("innerWidth");
  EXPECT_EQ(listener->finished, 1);
  evaluate("frames_ = 0");
  EXPECT_TRUE(comesTrue("frames_ > 10"));
}

TEST_F(WebPages, GetNothingThatNeedsTheUsersLeave) {
  baseURL = URL::parse("https://example.test/");  // a page without an origin may not even ask
  openAndFinish("<input type=file id=file><div id=box>box</div>");
  const std::pair<const char*, const char*> cases[] = {
      {"camera", "navigator.mediaDevices.getUserMedia({video: true, audio: true})"},
      {"location",
       "new Promise((yes, no) => navigator.geolocation.getCurrentPosition("
       "yes, error => error.code == error.PERMISSION_DENIED ? no() : yes()))"},
      {"fullscreen", "box.requestFullscreen()"},
      {"pointerLock",
       "new Promise((yes, no) => { document.onpointerlockerror = no;"
       "document.onpointerlockchange = yes; box.requestPointerLock() })"},
      {"notifications",
       "Notification.requestPermission().then(p => { if (p != 'granted') throw p "
       "})"},
  };
  for (auto& [name, request] : cases) {
    evaluate("outcome = ''; try { (" + std::string(request) +
             ").then(() => outcome = 'granted', () => outcome = 'refused') } "
             "catch (e) { outcome = 'refused' } 0");
    EXPECT_TRUE(comesTrue("outcome == 'refused'")) << name << evaluate("outcome");
  }
  evaluate("file.click(); print(); 0");
  EXPECT_EQ(evaluate("file.files.length"), "0");
  EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), 1u) << "no dialog has come up";
}

TEST_F(WebPages, OpenNoWindowsAndReplaceNoAd) {
  openAndFinish(
      "<a id=anchor href='https://example.test/blank' target=_blank style='position:fixed;"
      "inset:0;display:block'>link</a>");
  listener->decide = [](const NavigationAction& action) {
    return action.target == NavigationAction::TargetFrame::none;
  };
  EXPECT_EQ(evaluate("window.open('https://example.test/opened')"), "null");
  stage.tap({100, 100});
  ASSERT_TRUE(spinUntil([&] { return listener->windows.size() == 2; }));
  EXPECT_EQ(listener->windows[0].request->url.absoluteString(), "https://example.test/opened");
  EXPECT_EQ(listener->windows[1].request->url.absoluteString(), "https://example.test/blank");
  ASSERT_GE(listener->asked.size(), 1u);
  for (auto& action : listener->asked)
    EXPECT_EQ(action.target, NavigationAction::TargetFrame::none);
  EXPECT_EQ(evaluate("location.href"), "\"about:blank\"");

  listener->decide = [](const NavigationAction&) { return false; };
  stage.tap({100, 100});
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor("https://example.test/blank") == 2; }));
  evaluate("0");
  EXPECT_EQ(listener->windows.size(), 2u) << "refused before it was asked for";
}

TEST_F(WebPages, AskForCommandsOfEveryFrameAndWithOddAddresses) {
  listener->decide = [](const NavigationAction& action) {
    return action.request && action.request->url.scheme() == "about";
  };
  openAndFinish(
      "<iframe srcdoc=\"<script>location='kva://inner'</script>\"></iframe>"
      "<script>location = 'mraid://open?url=a%20b|{}'</script>");
  ASSERT_TRUE(spinUntil([&] { return listener->asksFor("kva://inner") == 1; }));
  const auto odd = std::ranges::find_if(listener->asked, [](auto& one) { return !one.request; });
  EXPECT_NE(odd, listener->asked.end()) << "an address that is no URL is asked for without one";
  EXPECT_TRUE(listener->errors.empty());
}

/// Serves a page at "/", one for which it wants a password at "/locked", and a file to be saved at
/// every other path.
class Server {
 public:
  Server() {
    soup_server_add_handler(server_.get(), nullptr, answer, this, nullptr);
    soup_server_listen_local(server_.get(), 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr);
  }
  std::string base() const {
    auto* uris = soup_server_get_uris(server_.get());
    auto base =
        "http://127.0.0.1:" + std::to_string(g_uri_get_port(static_cast<GUri*>(uris->data)));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    return base;
  }
  int files = 0;

 private:
  static void answer(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                     gpointer self) {
    const bool isLocked = std::string_view(path) == "/locked";
    const bool isFile = !isLocked && std::string_view(path) != "/";
    static_cast<Server*>(self)->files += isFile;
    if (isFile)
      soup_message_headers_append(soup_server_message_get_response_headers(message),
                                  "Content-Disposition",
                                  "attachment; filename=kelvara-refused.txt");
    if (isLocked)
      soup_message_headers_append(soup_server_message_get_response_headers(message),
                                  "WWW-Authenticate", "Basic realm=\"locked\"");
    soup_server_message_set_status(message, isLocked ? 401 : 200, nullptr);
    soup_server_message_set_response(message, isFile ? "text/plain" : "text/html",
                                     SOUP_MEMORY_STATIC, "<p>text", 7);
  }
  GObjectPtr<SoupServer> server_{soup_server_new(nullptr, nullptr)};
};

TEST_F(WebPages, DownloadNothing) {
  Server server;
  auto* downloads = g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD);
  const auto saved =
      std::filesystem::path(downloads ? downloads : g_get_home_dir()) / "kelvara-refused.txt";
  ASSERT_FALSE(std::filesystem::exists(saved));
  openAndFinish("");
  webView->load({*URL::parse(server.base() + "/"), "GET", {}, {}});
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 2; }));
  evaluate("location = '/attached'; 0");
  ASSERT_TRUE(spinUntil([&] { return server.files == 1; }));
  // Stopped perhaps before it even reaches the server.
  evaluate("a = document.createElement('a'); a.href = '/link'; a.download = 'x'; a.click(); 0");
  int turns = 0;
  spinUntil([&] { return ++turns > 100; });
  EXPECT_EQ(evaluate("location.pathname"), "\"/\"");
  EXPECT_FALSE(std::filesystem::exists(saved));
  EXPECT_TRUE(listener->errors.empty());
}

TEST_F(WebPages, AskNoOneForAPassword) {
  Server server;
  openAndFinish("");
  webView->load({*URL::parse(server.base() + "/locked"), "GET", {}, {}});
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 2; }));
  EXPECT_EQ(evaluate("document.body.innerText"), "\"text\"");
  EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), 1u) << "no dialog has come up";
}

TEST_F(WebPages, CannotHoldUpTheMainLoopNorTheirLeave) {
  openAndFinish("<script>setTimeout(() => { while (true) alert('again') })</script>");
  ASSERT_TRUE(spinUntil([&] { return listener->dialogs > 20; }));
  webView->view()->removeFromSuperview();
  webView.reset();
  const int heard = listener->dialogs;

  Server server;
  listener->finished = 0;
  openAndFinish("");
  webView->load({*URL::parse(server.base() + "/"), "GET", {}, {}});
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 2; }));
  evaluate("left = 0; onbeforeunload = e => { ++left; e.preventDefault(); return 'stay' }; 0");
  stage.tap({100, 100});  // without which the page may not ask
  evaluate("location = '/?next'; 0");
  EXPECT_TRUE(spinUntil([&] { return listener->finished == 3; }));
  EXPECT_EQ(listener->dialogs, heard) << "nothing of a page that has gone, nor of its leaving";
}

TEST_F(WebPages, TellOnceThatTheirProcessDiedBeforeTheyFinishedAndNotAfter) {
  open("<script>while (true);</script>");
  auto died = PendingCall::after(300, [&] { webkit_web_view_terminate_web_process(page()); });
  ASSERT_TRUE(spinUntil([&] { return !listener->errors.empty(); }));
  EXPECT_EQ(listener->finished, 0);

  webView->loadHTML("<p>again", std::nullopt);
  ASSERT_TRUE(spinUntil([&] { return listener->finished == 1; }));
  webkit_web_view_terminate_web_process(page());
  EXPECT_FALSE(evaluate("1").empty());
  EXPECT_EQ(listener->errors.size(), 1u);
}

std::string field(const std::string& process, const std::string& name) {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  return {};
}

bool isOurs(std::string process) {
  while (!process.empty() && process != "0" && process != std::to_string(getpid()))
    process = field(process, "PPid");
  return process == std::to_string(getpid());
}

/// The page processes below this process, in whatever sandboxes.
int pageProcesses() {
  int count = 0;
  for (auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto process = entry.path().filename().string();
    count += field(process, "Name") == "WebKitWebProces" && isOurs(process);
  }
  return count;
}

TEST_F(WebPages, TakeTheirProcessWithThemHoweverBusyItIs) {
  openAndFinish("<p>page");
  ASSERT_TRUE(spinUntil([&] { return pageProcesses() == 2; })) << "this one's and the warm one's";
  evaluate("setTimeout(() => { while (true); }); 0");
  webView->view()->removeFromSuperview();
  webView.reset();
  EXPECT_TRUE(spinUntil([&] { return pageProcesses() == 1; }));
}

TEST_F(WebPages, FailOnAnUnknownSchemeButNotWhenRefused) {
  openAndFinish("");
  listener->decide = [](auto& action) { return action.request->url.scheme() == "blah"; };
  evaluate("location = 'https://example.test/'; 0");
  evaluate("0");
  EXPECT_TRUE(listener->errors.empty());
  evaluate("location = 'blah:unknown'; 0");
  ASSERT_TRUE(spinUntil([&] { return !listener->errors.empty(); }));
  EXPECT_EQ(listener->errors[0].domain(), "WebKitPolicyError");
  EXPECT_EQ(listener->finished, 1);
}

TEST_F(WebPages, MayBeDroppedByTheirDelegateFromAnyQuestion) {
  for (auto* script :
       {"location = 'kva://x'", "alert(1)", "window.open('https://example.test/')"}) {
    struct Dropper : Listener {
      std::shared_ptr<WebView>* webView;
      bool webViewDecidePolicy(const NavigationAction&) override { return drop(); }
      ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog&) override {
        drop();
        return {};
      }
      void webViewCreateWebView(const NavigationAction&) override { drop(); }
      bool drop() {
        webView->reset();
        return false;
      }
    };
    listener->finished = 0;
    openAndFinish("");
    auto dropper = std::make_shared<Dropper>();
    dropper->webView = &webView;
    webView->setDelegate(dropper);
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

  auto type = [&](unsigned key) { stage::typeKey(stage.gtkWindow, key); };
  auto focusIsIn = [&](const std::shared_ptr<View>& view) {
    auto* focus = gtk_window_get_focus(stage.gtkWindow);
    return focus &&
           gtk_widget_is_ancestor(focus, std::static_pointer_cast<NativeView>(view)->widget());
  };
  listener->decide = [](auto&) { return false; };
  EXPECT_TRUE(focusIsIn(webView->view()));
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
  ASSERT_TRUE(spinUntil([&] { return focusIsIn(button->view()); }));
  type(GDK_KEY_space);
  ASSERT_TRUE(spinUntil([&] { return closed == 1; }));
  type(GDK_KEY_Tab);
  ASSERT_TRUE(spinUntil([&] { return focusIsIn(another->view()); }));
  type(GDK_KEY_Tab);
  ASSERT_TRUE(spinUntil([&] { return focusIsIn(webView->view()); }));
  evaluate("document.querySelector('a').focus(); 0");
  stage::typeKey(stage.gtkWindow, GDK_KEY_Tab, GDK_KEY_Shift_L);
  ASSERT_TRUE(spinUntil([&] { return focusIsIn(another->view()); }));
}

TEST_F(WebPages, ComeFromAPoolThatKeepsOneReady) {
  auto& pool = static_cast<Application&>(app).webViewPool();
  ASSERT_TRUE(spinUntil([&] { return pool.hasReady(); }));
  auto first = app.makeWebView({}, {}), second = app.makeWebView({}, {});
  EXPECT_FALSE(pool.hasReady());
  EXPECT_NE(std::static_pointer_cast<NativeWebView>(first)->page(),
            std::static_pointer_cast<NativeWebView>(second)->page());
  ASSERT_TRUE(spinUntil([&] { return pool.hasReady(); }));
}

TEST_F(WebPages, HaveNotFinishedWhenTheirProcessHasWarmedUp) {
  auto& pool = static_cast<Application&>(app).webViewPool();
  ASSERT_TRUE(spinUntil([&] { return pool.hasReady(); }));
  open("<script>alert('here'); while (true);</script>");
  ASSERT_TRUE(spinUntil([&] { return listener->dialogs == 1; }));
  EXPECT_EQ(listener->finished, 0);
}

}  // namespace
}  // namespace kva::gtk::test
