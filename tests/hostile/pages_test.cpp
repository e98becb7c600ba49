// What becomes of the host, the server and the screen when a page does its worst.
#include <signal.h>
#include <webkit/webkit.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <set>

#include <gmock/gmock.h>
#include <stage/RealInput.h>
#include <stage/Screenshot.h>
#include <nlohmann/json.hpp>

#include "show/ShowTest.h"

namespace kva::show {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

WebKitWebView* lastPageIn(GtkWidget* widget) {
  if (WEBKIT_IS_WEB_VIEW(widget)) return WEBKIT_WEB_VIEW(widget);
  for (auto* child = gtk_widget_get_last_child(widget); child;
       child = gtk_widget_get_prev_sibling(child))
    if (auto* found = lastPageIn(child)) return found;
  return nullptr;
}

void replace(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

const auto wasShownAndClosed = ElementsAre("didReceive", "didPresent", "didDismiss");

/// Shows the pages of pages/ as ads, one after the other in one process. A page says by
/// `window.acted` that it has done its worst.
class HostilePages : public ShowTest {
 protected:
  void SetUp() override {
    ShowTest::SetUp();
    // Answers nothing, though the connection is made; and nobody listens at the other.
    ASSERT_EQ(listen(unanswering.fd, 8), 0);
    // The page arrives as the ad's title, which lets every ad bring another.
    ASSERT_TRUE(server.publishTemplate(sandbox::kImageTemplate, "[@TITLE_TEXT]"));
    start();
    beat = g_get_monotonic_time();
    heart = g_timeout_add_full(
        GDK_PRIORITY_REDRAW + 1, 10,
        [](gpointer self) { return static_cast<HostilePages*>(self)->pulse(); }, this, nullptr);
  }
  void TearDown() override {
    g_source_remove(heart);
    pulse();
    EXPECT_LT(longestGap, 3'000'000) << "the main loop stood still";  // on a machine others share
    RecordProperty("longestGapInMicroseconds", std::to_string(longestGap));
    ShowTest::TearDown();
  }
  /// Comes after drawing, and so measures how long the main loop is kept from what does.
  gboolean pulse() {
    const gint64 before = std::exchange(beat, g_get_monotonic_time());
    longestGap = std::max(longestGap, beat - before);
    return G_SOURCE_CONTINUE;
  }

  /// A page of pages/ by its name; or one of a script that runs as soon as the ad is on show.
  std::string read(const std::string& page) {
    std::string html =
        "<!doctype html><title>ad</title><body><script>"
        "mraid.addEventListener('viewableChange', () => {" +
        page + "});</script>";
    std::ifstream in(KELVARA_TEST_DATA "/hostile/pages/" + page + ".html");
    if (in) html.assign(std::istreambuf_iterator<char>(in), {});
    replace(html, "$OTHER", server.origin() + "/creatives/privacy.html");
    replace(html, "$SILENT", unanswering.base() + "/");
    replace(html, "$REFUSED", test::refusingUrl().absoluteString());
    const char* commands = g_getenv("KELVARA_HOSTILE_COMMANDS");
    replace(html, "$COMMANDS", commands ? commands : "100000");
    return html;
  }
  /// Bids for and loads an ad that is this page, and returns without waiting for what comes of it.
  /// It may be closed after `countdown` seconds.
  std::shared_ptr<KVAAd> beginLoading(const std::string& page, int countdown = 0) {
    heardBefore = recorder->events().size();
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
  /// Loads the page, waits until it is ready and shows it.
  void present(const std::string& page, int countdown = 0) {
    const int ready = recorder->count("didReceive");
    presented = beginLoading(page, countdown);
    ASSERT_TRUE(heard("didReceive", ready + 1, 20));
    show(*presented);
  }
  bool controlIsThere() {
    auto* content = GTK_WIDGET(window);
    auto* picked =
        gtk_widget_pick(content, gtk_widget_get_width(content) - 30, 30, GTK_PICK_DEFAULT);
    return picked && gtk_widget_get_ancestor(picked, GTK_TYPE_BUTTON);
  }
  /// Waits until the close control can be pressed, presses it once, and waits for what the host
  /// hears of it: that the ad was received, shown and dismissed, and nothing else. With
  /// KELVARA_SCREENSHOTS set, saves what is on the screen there first.
  void close() {
    const int before = recorder->count("didDismiss");
    ASSERT_TRUE(spinUntil([&] { return controlIsThere(); })) << "nothing to close it with";
    if (const char* shots = g_getenv("KELVARA_SCREENSHOTS"))
      stage::saveScreenshot(window, std::filesystem::path(shots) / (lastBid->bidId() + ".png"));
    EXPECT_EQ(g_list_model_get_n_items(gtk_window_get_toplevels()), 1u) << "beside the host's";
    clickTopTrailing();
    ASSERT_TRUE(heard("didDismiss", before + 1)) << "the close control did not work";
    wasClosed();
  }
  void wasClosed() {
    closed.insert(lastBid->bidId());
    EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  }
  std::vector<std::string> heardOfThis() {
    auto events = recorder->events();
    events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(heardBefore));
    return events;
  }
  bool areReported(const sandbox::State& state) {
    return std::ranges::all_of(closed, [&](auto& bid) {
      const auto* report = state.report(bid);
      return report && report->dismissed;
    });
  }
  /// Waits for the reports of all ads that were closed: each was seen and dismissed, none clicked
  /// and nothing opened.
  void expectUneventfulReports() {
    // What happened while an upload was under way waits for the next that happens.
    if (!spinUntil([&] { return areReported(server.state()); })) {
      present("");
      close();
    }
    EXPECT_TRUE(spinUntil([&] { return areReported(server.state()); }, 20));
    const auto state = server.state();
    EXPECT_EQ(state.reports.size(), closed.size()) << "reports of ads that nobody saw";
    for (const auto& report : state.reports) {
      EXPECT_TRUE(report.impression && report.dismissed);
      EXPECT_FALSE(report.clicked || report.failToShow);
    }
    EXPECT_THAT(opened, IsEmpty());
  }

  /// The newest page that is not the warm one; null when there is none.
  WebKitWebView* page() { return lastPageIn(GTK_WIDGET(window)); }
  std::string address() { return page() ? webkit_web_view_get_uri(page()) : "no page"; }
  /// In the page's own world, as JSON; "no answer" of a page that is busy.
  std::string evaluate(const std::string& script) {
    if (!page()) return "no page";
    // Outlives this call, for the answer of a busy page may come late.
    using Answer = std::shared_ptr<std::optional<std::string>>;
    auto answer = std::make_shared<std::optional<std::string>>();
    webkit_web_view_evaluate_javascript(
        page(), script.data(), static_cast<gssize>(script.size()), nullptr, nullptr, nullptr,
        [](GObject* from, GAsyncResult* result, gpointer data) {
          std::unique_ptr<Answer> kept(static_cast<Answer*>(data));
          g_autoptr(GError) error = nullptr;
          g_autoptr(JSCValue) value =
              webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(from), result, &error);
          g_autofree char* json = value ? jsc_value_to_json(value, 0) : nullptr;
          **kept = json ? json : error ? error->message : "null";
        },
        new Answer(answer));
    return spinUntil([&] { return answer->has_value(); }) ? **answer : "no answer";
  }
  bool comesTrue(const std::string& condition, int seconds = 20) {
    return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; }, seconds);
  }
  bool hasActed(int seconds = 20) { return comesTrue("window.acted", seconds); }
  void killPageProcesses() {
    // WebKit ends this process too when one dies that it is still launching.
    for (std::vector<pid_t> before; before != pageProcesses(); spinFor(1)) before = pageProcesses();
    for (const pid_t process : pageProcesses()) kill(process, SIGKILL);
  }

  std::shared_ptr<KVAAd> presented;
  std::size_t heardBefore = 0;
  std::set<std::string> closed;  ///< bids
  guint heart = 0;
  gint64 beat = 0, longestGap = 0;
  test::LoopbackSocket unanswering;
};

TEST_F(HostilePages, MayLeadTheirViewElsewhereButNotTheUser) {
  const auto elsewhere = server.origin() + "/creatives/privacy.html";
  const auto isElsewhere = [&] { return address().starts_with(elsewhere); };
  const auto acts = [&] { return hasActed(); };
  const std::pair<const char*, std::function<bool()>> cases[] = {
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
      // Not so fast that the page is ended for it.
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
  expectUneventfulReports();
}

TEST_F(HostilePages, OpenNothingThatWasNotTapped) {
  for (const std::string name : {"ways-out", "schemes", "synthetic-taps"}) {
    SCOPED_TRACE(name);
    present(name);
    // A pointer that moves over the ad taps nothing.
    for (double x = 300; name == "synthetic-taps" && x < 400; x += 10)
      stage::movePointer(window, x, 300);
    EXPECT_TRUE(hasActed());
    EXPECT_EQ(evaluate("document.title"), "\"ad\"") << address();
    close();
  }
  expectUneventfulReports();
}

TEST_F(HostilePages, HearWhatIsWrongWithTheirCommands) {
  present("malformed-commands");
  EXPECT_TRUE(hasActed());
  EXPECT_EQ(evaluate("[...new Set(errors)].sort()"),
            R"(["%00: Command not found!","%6fpen: Command not found!",)"
            R"("%C3%BC: Command not found!","Open: Command not found!",)"
            R"("VIDEOEVENT: Command not found!","close: Command not found!",)"
            R"("expand: Command not found!","hhhhhhhhhhhhhhhhhhhh: Command not found!",)"
            R"("open: Scheme not supported: sms","open: Scheme not supported: tel",)"
            R"("open: URL not found!","resize: Size parameters not found!",)"
            R"("unload: Command not found!","videoevent: Command not found!"])");
  close();
  expectUneventfulReports();
}

TEST_F(HostilePages, CannotHoldUpTheUserNorTheHost) {
  const auto acts = [&] { return hasActed(); };
  const auto isTrapped = [&] {
    clickPage();
    return hasActed();
  };
  // With KELVARA_HOSTILE_COMMANDS set, all of that many.
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
      {"memory", acts},
      {"command-flood", floods},
      {"unload-trap", isTrapped},
  };
  for (const auto& [name, acted] : cases) {
    SCOPED_TRACE(name);
    present(name, 1);
    EXPECT_TRUE(!acted || acted());
    close();
  }
  expectUneventfulReports();
  EXPECT_TRUE(spinUntil([] { return pageProcesses().size() <= 1; })) << "pages that live on";
}

TEST_F(HostilePages, MayDieAtAnyTime) {
  present("empty");
  close();

  auto unready = beginLoading("never-loads");
  EXPECT_TRUE(hasActed());
  EXPECT_THAT(heardOfThis(), IsEmpty());
  killPageProcesses();
  EXPECT_TRUE(spinUntil([&] { return !heardOfThis().empty(); }));
  EXPECT_THAT(heardOfThis(), ElementsAre(StartsWith("didFailToReceive")));
  EXPECT_FALSE(unready->isLoading());
  unready.reset();

  auto busy = beginLoading("never-parses");
  EXPECT_TRUE(spinUntil([&] { return page() != nullptr; }));
  busy.reset();
  EXPECT_TRUE(spinUntil([&] { return !page(); }));
  EXPECT_THAT(heardOfThis(), IsEmpty());

  auto failing = beginLoading("fails");
  EXPECT_TRUE(spinUntil([&] { return !heardOfThis().empty(); }));
  EXPECT_THAT(heardOfThis(), ElementsAre(StartsWith("didFailToReceive")));
  failing.reset();

  const int ready = recorder->count("didReceive");
  auto dead = beginLoading("", 1);
  ASSERT_TRUE(heard("didReceive", ready + 1));
  killPageProcesses();
  EXPECT_TRUE(spinUntil([&] { return evaluate("1") != "1"; }));
  dead->showAdFrom(viewController);
  EXPECT_THAT(heardOfThis(), ElementsAre("didReceive", "didFailToPresent 0"));
  dead.reset();

  present("", 1);
  killPageProcesses();
  close();
  expectUneventfulReports();
}

TEST_F(HostilePages, CannotCoverTheControls) {
  for (const std::string name : {"overlay", "overwrites"}) {
    SCOPED_TRACE(name);
    present(name, 1);
    EXPECT_TRUE(hasActed());
    close();
  }

  present("list");
  clickPage();
  EXPECT_TRUE(hasActed());
  // A press beside an open list puts it away.
  EXPECT_TRUE(spinUntil([&] {
    clickTopTrailing();
    spinFor(0.3);
    return recorder->count("didDismiss") == 3;
  }));
  wasClosed();
  expectUneventfulReports();
}

TEST_F(HostilePages, GetNothingThatNeedsTheUsersLeave) {
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
  for (const char* place :
       {".", g_get_home_dir(), g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD)})
    EXPECT_FALSE(place && std::filesystem::exists(std::filesystem::path(place) / "hostile.bin"));
  expectUneventfulReports();
}

TEST_F(HostilePages, OpenWhatTheUserTapsInAFrameButNothingAtAPressOnAControl) {
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
    ASSERT_TRUE(heard("didDismiss"));
    recorder = std::make_shared<Recorder>();
  }

  opened.clear();
  present("setInterval(() => mraid.open('https://example.test/polled'), 5); window.acted = true");
  EXPECT_TRUE(hasActed());
  close();
  EXPECT_THAT(opened, IsEmpty());
}

TEST_F(HostilePages, AreNotifiedOfTheirCloseHoweverItComesAndWhatTheySendThenArrives) {
  std::mutex mutex;
  std::vector<std::string> received;
  test::LoopbackServer beacons([&](httplib::Server& answers) {
    answers.Post("/closed", [&](const auto& request, auto&) {
      std::scoped_lock lock(mutex);
      received.push_back(request.body);
    });
  });
  const auto page =
      "if (window.acted) return; window.acted = true; const seen = []; "
      "mraid.addEventListener('viewableChange', v => seen.push(v));"
      "mraid.addEventListener('stateChange', state => { seen.push(state);"
      "navigator.sendBeacon('" +
      beacons.url("/closed").absoluteString() + "', seen.join()) })";
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"control", [&] { clickTopTrailing(); }},
      {"Escape", [&] { stage::typeKey(window, GDK_KEY_Escape); }},
      {"window", [&] { gtk_window_destroy(std::exchange(window, nullptr)); }},
  };
  for (const auto& [way, close] : ways) {
    SCOPED_TRACE(way);
    received.clear();
    present(page);
    EXPECT_TRUE(comesTrue("mraid.isViewable()"));
    close();
    EXPECT_TRUE(spinUntil([&] {
      std::scoped_lock lock(mutex);
      return !received.empty();
    }));
    EXPECT_THAT(received, ElementsAre("false,hidden"));
    EXPECT_TRUE(spinUntil([] { return pageProcesses().size() <= 1; }));
  }
}

TEST_F(HostilePages, LeaveTheHostAloneUntilTheyAreShown) {
  auto* field = gtk_entry_new();
  gtk_window_set_child(window, field);
  gtk_widget_grab_focus(field);
  auto ad = beginLoading("early-focus");
  ASSERT_TRUE(heard("didReceive"));
  EXPECT_TRUE(comesTrue("rounds > 20"));
  EXPECT_TRUE(gtk_widget_is_ancestor(gtk_window_get_focus(window), field));
  ad.reset();

  // What plays unseen knows that it is, and ends with the ad.
  auto sounding = beginLoading("early-sound");
  ASSERT_TRUE(heard("didReceive", 2));
  EXPECT_TRUE(comesTrue("window.viewableThen === false"));
  sounding.reset();
  EXPECT_TRUE(spinUntil([&] { return !page() && pageProcesses().size() <= 1; }));
}

}  // namespace
}  // namespace kva::show
