#include <signal.h>

#include <set>
#include <thread>

#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Runtime.h>
#include <gmock/gmock.h>
#include <platform/linux/gtk/Application.h>
#include <nlohmann/json.hpp>

#include "show/ShowTest.h"
#include "support/PageScript.h"

namespace kva::show {
namespace {

using testing::AllOf, testing::Each, testing::ElementsAre, testing::Field, testing::IsEmpty,
    testing::StartsWith;

/// Shows the pages of pages/ as ads, one after another in one process. A page sets `window.acted`
/// when its attack is done.
class HostilePages : public ShowTest {
 protected:
  void SetUp() override {
    ShowTest::SetUp();
    // Accepts connections, but never answers.
    ASSERT_EQ(listen(unanswering.fd, 8), 0);
    // The page is the ad's title, so each ad has its own page.
    ASSERT_TRUE(server.publishTemplate(sandbox::kImageTemplate, "[@TITLE_TEXT]"));
    start();
    beat = g_get_monotonic_time();
    heartbeat = g_timeout_add_full(
        GDK_PRIORITY_REDRAW + 1, 10,
        [](gpointer self) { return static_cast<HostilePages*>(self)->pulse(); }, this, nullptr);
  }
  void TearDown() override {
    g_source_remove(heartbeat);
    pulse();
    EXPECT_LT(longestGap, 3'000'000) << "the main loop was blocked";  // generous: machines are busy
    RecordProperty("longestGapInMicroseconds", std::to_string(longestGap));
    ShowTest::TearDown();
  }
  /// Runs after drawing. Measures how long the main loop is blocked.
  gboolean pulse() {
    const gint64 before = std::exchange(beat, g_get_monotonic_time());
    longestGap = std::max(longestGap, beat - before);
    return G_SOURCE_CONTINUE;
  }

  /// The page of this name in pages/, or else a page that runs `page` as a script when it is shown.
  std::string read(const std::string& page) {
    std::string html =
        "<!doctype html><title>ad</title><body><script>"
        "mraid.addEventListener('viewableChange', () => {" +
        page + "});</script>";
    std::ifstream in(KELVARA_TEST_DATA "/hostile/pages/" + page + ".html");
    if (in) html.assign(std::istreambuf_iterator<char>(in), {});
    html = replacingOccurrences(html, "$OTHER", server.origin() + "/creatives/privacy.html");
    html = replacingOccurrences(html, "$SILENT", unanswering.base() + "/");
    html = replacingOccurrences(html, "$REFUSED", test::refusingUrl().absoluteString());
    const char* commands = g_getenv("KELVARA_HOSTILE_COMMANDS");
    return replacingOccurrences(html, "$COMMANDS", commands ? commands : "100000");
  }
  /// Bids for an ad with this page and starts to load it, with a delegate of its own. The ad can be
  /// closed after `countdown` seconds.
  std::shared_ptr<KVAAd> beginLoading(const std::string& page, int countdown = 0) {
    recorder = std::make_shared<test::AdRecorder>();
    const nlohmann::json creative = {{"id", "hostile"},    {"adt", "interstitial"},
                                     {"ctyp", "image"},    {"adur", countdown},
                                     {"titl", read(page)}, {"curl", "https://example.test/click"},
                                     {"bton", "{}"},       {"deta", "{}"}};
    server.setScenario(
        "/bid/load",
        {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea", .value = creative.dump()});
    auto ad = makeAd(KVABidType::interstitial);
    const auto won = bid(KVABidType::interstitial);
    ad->loadAd(won, won->price());
    return ad;
  }
  /// Loads the page, waits until it is ready, and shows it.
  void present(const std::string& page, int countdown = 0) {
    presented = beginLoading(page, countdown);
    ASSERT_TRUE(waitFor("didReceive", 1, 20));
    show(*presented);
  }
  bool controlIsThere() {
    auto* content = GTK_WIDGET(window);
    auto* picked =
        gtk_widget_pick(content, gtk_widget_get_width(content) - 30, 30, GTK_PICK_DEFAULT);
    return picked && gtk_widget_get_ancestor(picked, GTK_TYPE_BUTTON);
  }
  /// Waits for the close control, presses it once, and waits for the dismissal. Fails if the host
  /// received other events than didReceive, didPresent and didDismiss.
  void close() {
    ASSERT_TRUE(spinUntil([&] { return controlIsThere(); })) << "no close control";
    EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), 1u) << "a second window";
    clickTopTrailing();
    ASSERT_TRUE(waitFor("didDismiss")) << "the close control did not work";
    ++closed;
    EXPECT_THAT(recorder->events(), ElementsAre("didReceive", "didPresent", "didDismiss"));
  }
  /// Waits for the reports of all closed ads. Fails unless each was seen and dismissed, none was
  /// clicked, and nothing was opened.
  void expectReportsWithoutClicks() {
    using Report = sandbox::ReportRecord;
    EXPECT_TRUE(reportsCome([&](const sandbox::State& state) {
      return std::ranges::count(state.reports, true, &Report::dismissed) == closed;
    }));
    EXPECT_THAT(server.state().reports,
                Each(AllOf(Field(&Report::impression, true), Field(&Report::dismissed, true),
                           Field(&Report::clicked, false), Field(&Report::failToShow, false))));
    EXPECT_THAT(opened, IsEmpty());
  }

  std::string address() { return page() ? webkit_web_view_get_uri(page()) : "no page"; }
  /// The script's value in the page's own world, as JSON. "no answer" if the page is busy.
  std::string evaluate(const std::string& script) {
    return page() ? test::runInPage(page(), "return " + script) : "no page";
  }
  bool comesTrue(const std::string& condition, int seconds = 20) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; }, seconds);
  }
  bool hasActed(int seconds = 20) { return comesTrue("window.acted", seconds); }
  void killPageProcesses() {
    // WebKit aborts the host if a web process dies during its launch, so wait for the pool's.
    auto& application = static_cast<gtk::Application&>(*Runtime::current().platform().application);
    EXPECT_TRUE(spinUntil([&] { return application.hasReadyWebView(); }));
    for (const pid_t process : pageProcesses()) kill(process, SIGKILL);
    // Until the pool notices, it gives its dead view to the next ad.
    EXPECT_TRUE(spinUntil([&] { return !application.hasReadyWebView(); }));
  }

  std::shared_ptr<KVAAd> presented;
  int closed = 0;  ///< ads
  guint heartbeat = 0;
  gint64 beat = 0, longestGap = 0;
  test::LoopbackSocket unanswering;
};

TEST_F(HostilePages, MayNavigateTheirViewButOpenNothing) {
  const auto elsewhere = server.origin() + "/creatives/privacy.html";
  const auto isElsewhere = [&] { return address().starts_with(elsewhere); };
  const auto acts = [&] { return hasActed(); };
  const auto actsInPlace = [&] { return hasActed() && evaluate("document.title") == "\"ad\""; };
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"ways-out", actsInPlace},
      {"schemes", actsInPlace},
      {"malformed-commands", actsInPlace},
      {"synthetic-taps",
       [&] {
         // Motion of the pointer is no tap.
         for (double x = 300; x < 400; x += 10) stage::movePointer(window, x, 300);
         return actsInPlace();
       }},
      {"redirect-while-loading", isElsewhere},
      {"redirect-from-frame", isElsewhere},
      {"location = '$OTHER'", isElsewhere},
      {"document.body.innerHTML = `<meta http-equiv=refresh content='0;url=$OTHER'>`", isElsewhere},
      {"document.body.innerHTML = '<form action=$OTHER target=_top>'; document.forms[0].submit()",
       isElsewhere},
      {"for (let i = 0; i < 50; i++) location.hash = i; history.go(-60);"
       "setTimeout(() => { history.back(); location.reload(); }, 100)",
       [&] { return evaluate("document.title") != "\"ad\""; }},
      {"location = '$SILENT'; window.acted = true", acts},
      // Slowly enough not to be terminated as a flood.
      {"let n = 0; setInterval(() => { location = '#' + n++; if (n % 2) location = '$SILENT?' + n;"
       "window.acted = n > 50 }, 20)",
       acts},
  };
  for (const auto& [name, hasLed] : cases) {
    SCOPED_TRACE(name);
    present(name);
    EXPECT_TRUE(spinUntil(hasLed)) << address();
    close();
  }
  expectReportsWithoutClicks();
}

TEST_F(HostilePages, BlockNeitherTheUserNorTheHost) {
  const auto acts = [&] { return hasActed(); };
  const auto isTrapped = [&] {
    clickPage();
    return hasActed();
  };
  // If KELVARA_HOSTILE_COMMANDS is set, waits for that many commands.
  const auto floods = [&] {
    return g_getenv("KELVARA_HOSTILE_COMMANDS") ? hasActed(600) : comesTrue("sent > 500");
  };
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"for (;;);", nullptr},
      {"onbeforeunload = event => { event.preventDefault(); return 'stay' };"
       "for (;;) { alert(1); if (confirm(2) || prompt(3, 4) !== null) break; print() }"
       "window.answered = true",
       nullptr},
      {"for (let i = 0; i < 8; i++) new Worker(URL.createObjectURL("
       "new Blob(['for (;;) postMessage(Array(1e4).fill(1))'])))",
       nullptr},
      {"setInterval(() => { for (let i = 0; i < 1e4; i++) {"
       "document.title = i; console.log(i); location.hash = i } })",
       nullptr},
      {"overlay", acts},
      {"overwrites", acts},
      {"memory", acts},
      {"command-flood", floods},
      {"unload-trap", isTrapped},
      {"list",
       [&] {
         clickPage();
         const bool isOpen = hasActed();
         clickTopTrailing();  // closes the list: the first press beside it does no more
         return isOpen;
       }},
  };
  for (const auto& [name, acted] : cases) {
    SCOPED_TRACE(name);
    present(name, 1);
    EXPECT_TRUE(!acted || acted());
    close();
  }
  expectReportsWithoutClicks();
  EXPECT_TRUE(isOnlyWarmPageLeft());
}

TEST_F(HostilePages, MayDieAtAnyTime) {
  present("empty");
  close();

  const auto failsOnce = [&] {
    EXPECT_TRUE(spinUntil([&] { return !recorder->events().empty(); }));
    EXPECT_THAT(recorder->events(), ElementsAre(StartsWith("didFailToReceive")));
  };
  auto ad = beginLoading("never-loads");
  EXPECT_TRUE(hasActed());
  EXPECT_THAT(recorder->events(), IsEmpty());
  killPageProcesses();
  failsOnce();
  EXPECT_FALSE(ad->isLoading());

  ad = beginLoading("never-parses");
  EXPECT_TRUE(spinUntil([&] { return page() != nullptr; }));
  ad.reset();
  EXPECT_TRUE(spinUntil([&] { return !page(); }));
  EXPECT_THAT(recorder->events(), IsEmpty());

  ad = beginLoading("fails");
  failsOnce();

  ad = beginLoading("", 1);
  ASSERT_TRUE(waitFor("didReceive"));
  killPageProcesses();
  EXPECT_TRUE(spinUntil([&] { return evaluate("1") != "1"; }));
  ad->showAdFrom(viewController);
  EXPECT_THAT(recorder->events(), ElementsAre("didReceive", "didFailToPresent 0 Ad isn't ready."));
  ad.reset();

  present("", 1);
  killPageProcesses();
  close();
  expectReportsWithoutClicks();
}

TEST_F(HostilePages, GetNoPermissionAndNoDownload) {
  present("requests");
  EXPECT_TRUE(comesTrue("untapped")) << evaluate("outcomes");
  clickPage();
  EXPECT_TRUE(hasActed()) << evaluate("outcomes");
  EXPECT_EQ(evaluate("Object.keys(outcomes).filter(name => outcomes[name] != 'refused')"), "[]");
  EXPECT_EQ(gtk_widget_get_width(GTK_WIDGET(window)), 800);
  close();

  present("downloads");
  clickPage();
  EXPECT_TRUE(hasActed());
  close();

  std::atomic<int> attachments = 0;
  test::LoopbackServer elsewhere([&](httplib::Server& answers) {
    answers.Get("/locked", [](const auto&, auto& answer) {
      answer.status = 401;
      answer.set_header("WWW-Authenticate", "Basic realm=\"locked\"");
      answer.set_content("<p>locked", "text/html");
    });
    answers.Get("/attached", [&](const auto&, auto& answer) {
      ++attachments;
      answer.set_header("Content-Disposition", "attachment; filename=hostile.bin");
      answer.set_content("hostile", "text/plain");
    });
  });
  present("location = '" + elsewhere.base() + "/locked'");
  EXPECT_TRUE(comesTrue("document.body.innerText == 'locked'")) << "a dialog for a password";
  evaluate("location = '/attached'; 0");
  EXPECT_TRUE(spinUntil([&] { return attachments == 1; }));
  spinFor(0.3);
  EXPECT_EQ(evaluate("location.pathname"), "\"/locked\"");
  close();
  for (const char* place :
       {".", g_get_home_dir(), g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD)})
    EXPECT_FALSE(place && std::filesystem::exists(std::filesystem::path(place) / "hostile.bin"));
  expectReportsWithoutClicks();
}

TEST_F(HostilePages, OpenALinkTappedInAFrame) {
  const std::string link = "position:fixed;inset:0";
  for (const std::string target : {"_blank", "_top", "_self"}) {
    SCOPED_TRACE(target);
    opened.clear();
    const auto address = "https://example.test/" + target;
    present("document.body.innerHTML = `<iframe style='" + link +
            ";width:100%;height:100%;border:0'" + " srcdoc=\"<a href='" + address +
            "' target=" + target + " style='" + link + "'>a</a>\"></iframe>`; window.acted = true");
    EXPECT_TRUE(hasActed());
    // The frame may draw a moment later.
    EXPECT_TRUE(spinUntil([&] {
      clickPage();
      spinFor(0.2);
      return !opened.empty();
    }));
    EXPECT_EQ(opened.front(), address);
    EXPECT_EQ(evaluate("document.title"), "\"ad\"");
    EXPECT_EQ(recorder->count("didClick"), 1);
    clickTopTrailing();
    ASSERT_TRUE(waitFor("didDismiss"));
  }
}

TEST_F(HostilePages, AreNotifiedOfEveryKindOfCloseAndMaySendRequests) {
  Guarded<std::multiset<std::string>> received;
  test::LoopbackServer closings([&](httplib::Server& answers) {
    const auto receive = [&](const auto& request, auto&) {
      received.with([&](auto& all) { all.insert(request.path + " " + request.body); });
    };
    answers.Get("/image", receive);
    answers.Get("/slow", [](const auto&, auto& answer) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      answer.set_redirect("/image");
    });
    for (const char* path : {"/fetch", "/beacon"}) answers.Post(path, receive);
  });
  const auto page =
      "if (window.acted) return; window.acted = true; const seen = [], base = '" + closings.base() +
      "'; mraid.addEventListener('viewableChange', v => seen.push(v));"
      "mraid.addEventListener('stateChange', state => { seen.push(state);"
      "for (const end = Date.now() + 500; Date.now() < end;);"
      "new Image().src = base + '/slow';"
      "fetch(base + '/fetch', {method: 'POST', body: 'x', mode: 'no-cors', keepalive: true});"
      "navigator.sendBeacon(base + '/beacon', seen.join());"
      "print(); alert(1); location = 'kva://late' })";
  auto* field = gtk_entry_new();
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"control", [&] { clickTopTrailing(); }},
      {"Escape", [&] { stage::typeKey(window, GDK_KEY_Escape); }},
      {"window", [&] { gtk_window_destroy(std::exchange(window, nullptr)); }},
      {"host", [&] { host.reset(); }},
  };
  for (const auto& [way, close] : ways) {
    SCOPED_TRACE(way);
    received.set({});
    present(page);
    EXPECT_TRUE(comesTrue("mraid.isViewable()"));
    close();
    EXPECT_TRUE(waitFor("didDismiss"));
    EXPECT_TRUE(spinUntil([&] { return received.get().size() >= 3; }));
    EXPECT_THAT(received.get(), ElementsAre("/beacon false,hidden", "/fetch x", "/image "));
    EXPECT_TRUE(isOnlyWarmPageLeft());
    EXPECT_EQ(recorder->count("didDismiss"), 1);
    EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), window ? 1u : 0u)
        << "a dialog of the page";
    if (window) continue;
    openWindow();
    gtk_window_set_child(window, field);
    gtk_widget_grab_focus(field);
  }
  EXPECT_TRUE(gtk_widget_get_child_visible(field)) << "the host's content is restored";
  EXPECT_TRUE(gtk_widget_is_ancestor(gtk_window_get_focus(window), field));
  auto* pressed = gtk_widget_pick(GTK_WIDGET(window), 400, 300, GTK_PICK_DEFAULT);
  EXPECT_TRUE(gtk_widget_is_ancestor(pressed, field)) << "the ad still covers it";
}

}  // namespace
}  // namespace kva::show
