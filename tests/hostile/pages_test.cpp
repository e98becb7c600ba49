// What becomes of the host, the server and the screen when a page does its worst.
#include <signal.h>
#include <webkit/webkit.h>

#include <fstream>
#include <iterator>
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

/// Measures how long the main loop is kept from sources that come after drawing.
class Pulse {
 public:
  Pulse() : last_(g_get_monotonic_time()) {
    source_ = g_timeout_add_full(
        GDK_PRIORITY_REDRAW + 1, 10,
        [](gpointer data) -> gboolean {
          auto& self = *static_cast<Pulse*>(data);
          self.longest_ = self.longestGap();
          self.last_ = g_get_monotonic_time();
          return G_SOURCE_CONTINUE;
        },
        this, nullptr);
  }
  ~Pulse() { g_source_remove(source_); }
  Pulse(const Pulse&) = delete;
  Pulse& operator=(const Pulse&) = delete;

  /// In microseconds, the one under way included.
  gint64 longestGap() const { return std::max(longest_, g_get_monotonic_time() - last_); }

 private:
  gint64 last_, longest_ = 0;
  guint source_;
};

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
    pulse.emplace();
  }
  void TearDown() override {
    // Of the whole machine, which tests share with others.
    EXPECT_LT(pulse->longestGap(), 3'000'000) << "the main loop stood still";
    RecordProperty("longestGapInMicroseconds", std::to_string(pulse->longestGap()));
    pulse.reset();
    ShowTest::TearDown();
  }

  std::string read(const std::string& page) {
    std::ifstream in(KELVARA_TEST_DATA "/hostile/pages/" + page + ".html");
    EXPECT_TRUE(in) << page;
    std::string html{std::istreambuf_iterator<char>(in), {}};
    replace(html, "$OTHER", server.origin() + "/creatives/privacy.html");
    replace(html, "$SILENT", unanswering.base() + "/");
    replace(html, "$REFUSED", test::refusingUrl().absoluteString());
    const char* commands = g_getenv("KELVARA_HOSTILE_COMMANDS");
    replace(html, "$COMMANDS", commands ? commands : "100000");
    return html;
  }
  /// Bids for and loads an ad that is this page, and returns without waiting for what comes of it.
  /// It may be closed after `countdown` seconds.
  std::shared_ptr<KVAAd> beginLoading(const std::string& page, int countdown = 0,
                                      const char* content = "image") {
    heardBefore = recorder->events().size();
    pageName = page;
    const nlohmann::json creative = {{"id", "hostile"},    {"adt", "interstitial"},
                                     {"ctyp", content},    {"adur", countdown},
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
  void present(const std::string& page, int countdown = 0, const char* content = "image") {
    const int ready = recorder->count("didReceive");
    presented = beginLoading(page, countdown, content);
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
      stage::saveScreenshot(window, std::filesystem::path(shots) / (pageName + ".png"));
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
      present("plain");
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
    for (const pid_t process : pageProcesses()) kill(process, SIGKILL);
  }

  std::shared_ptr<KVAAd> presented;
  std::string pageName;
  std::size_t heardBefore = 0;
  std::set<std::string> closed;  ///< bids
  std::optional<Pulse> pulse;
  test::LoopbackSocket unanswering;
};

TEST_F(HostilePages, MayLeadTheirViewElsewhereButNotTheUser) {
  const auto elsewhere = server.origin() + "/creatives/privacy.html";
  const auto isElsewhere = [&] { return address().starts_with(elsewhere); };
  const auto acts = [&] { return hasActed(); };
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"redirect-while-loading", isElsewhere},
      {"redirect-location", isElsewhere},
      {"redirect-refresh", isElsewhere},
      {"redirect-form", isElsewhere},
      {"redirect-from-frame", isElsewhere},
      {"redirect-history", [&] { return evaluate("document.title") != "\"ad\""; }},
      {"redirect-to-nowhere", acts},
      {"redirect-for-ever", acts},
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

TEST_F(HostilePages, AreReadyOnceHoweverOftenTheySaySo) {
  auto silent = beginLoading("preload-never", 0, "video");
  EXPECT_TRUE(hasActed());
  EXPECT_THAT(heardOfThis(), IsEmpty());
  EXPECT_TRUE(silent->isLoading());
  silent.reset();
  EXPECT_TRUE(spinUntil([&] { return !page(); })) << "the page outlives its ad";

  present("preload-thousandfold", 0, "video");
  EXPECT_TRUE(hasActed());
  clickTopTrailing();  // skips
  close();

  present("video-flood", 0, "video");
  EXPECT_TRUE(hasActed());
  close();
  expectUneventfulReports();
  EXPECT_EQ(server.state().report(lastBid->bidId())->quarter, 4);
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
      {"endless-loop", nullptr},  {"endless-dialogs", nullptr},
      {"workers", nullptr},       {"fragment-flood", nullptr},
      {"memory", acts},           {"command-flood", floods},
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
  auto dead = beginLoading("plain", 1);
  ASSERT_TRUE(heard("didReceive", ready + 1));
  killPageProcesses();
  show(*dead);
  close();

  present("plain", 1);
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
