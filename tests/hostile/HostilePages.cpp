#include "hostile/HostilePages.h"

#include <signal.h>
#include <webkit/webkit.h>

#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <stage/Screenshot.h>
#include <nlohmann/json.hpp>

namespace kva::show {
namespace {

/// Right after the frames of the windows.
constexpr int kAfterDrawing = GDK_PRIORITY_REDRAW + 1;
constexpr guint kPulseMilliseconds = 10;
/// Of the whole machine, which tests share with others.
constexpr double kLongestGap = 3;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void replace(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

WebKitWebView* lastPageIn(GtkWidget* widget) {
  if (WEBKIT_IS_WEB_VIEW(widget)) return WEBKIT_WEB_VIEW(widget);
  for (auto* child = gtk_widget_get_last_child(widget); child;
       child = gtk_widget_get_prev_sibling(child))
    if (auto* found = lastPageIn(child)) return found;
  return nullptr;
}

}  // namespace

Pulse::Pulse() : last_(g_get_monotonic_time()) {
  source_ = g_timeout_add_full(
      kAfterDrawing, kPulseMilliseconds,
      [](gpointer data) -> gboolean {
        auto& self = *static_cast<Pulse*>(data);
        const gint64 now = g_get_monotonic_time();
        self.longest_ = std::max(self.longest_, now - std::exchange(self.last_, now));
        return G_SOURCE_CONTINUE;
      },
      this, nullptr);
}

Pulse::~Pulse() { g_source_remove(source_); }

double Pulse::longestGap() const {
  return static_cast<double>(std::max(longest_, g_get_monotonic_time() - last_)) / 1e6;
}

void HostilePages::SetUp() {
  ShowTest::SetUp();
  // Answers nothing, though the connection is made; and nobody listens at the other.
  ASSERT_EQ(listen(silent_.fd, 8), 0);
  // The page arrives as the ad's title, which lets every ad bring another.
  ASSERT_TRUE(server.publishTemplate(sandbox::kImageTemplate, "[@TITLE_TEXT]"));
  start();
  pulse.emplace();
}

void HostilePages::TearDown() {
  EXPECT_LT(pulse->longestGap(), kLongestGap) << "the main loop stood still";
  RecordProperty("longestGapInMilliseconds", std::to_string(pulse->longestGap() * 1000));
  pulse.reset();
  ShowTest::TearDown();
}

std::string HostilePages::filled(const std::string& page) const {
  const auto file = std::filesystem::path(KELVARA_TEST_DATA "/hostile/pages") / (page + ".html");
  EXPECT_TRUE(std::filesystem::exists(file)) << file;
  auto html = readFile(file);
  replace(html, "$OTHER", server.origin() + "/creatives/privacy.html");
  replace(html, "$SILENT", silent_.base() + "/");
  replace(html, "$REFUSED", refused_.base() + "/");
  const char* commands = g_getenv("KELVARA_HOSTILE_COMMANDS");
  replace(html, "$COMMANDS", commands ? commands : "100000");
  return html;
}

std::shared_ptr<KVAInterstital> HostilePages::beginLoading(const std::string& page, int countdown,
                                                           Content content) {
  heardBefore_ = recorder->events().size();
  lastPage_ = page;
  const nlohmann::json creative = {{"id", "hostile"},
                                   {"adt", "interstitial"},
                                   {"ctyp", content == Content::video ? "video" : "image"},
                                   {"adur", countdown},
                                   {"titl", filled(page)},
                                   {"curl", "https://example.test/click"},
                                   {"bton", "{}"},
                                   {"deta", "{}"}};
  server.setScenario(
      "/bid/load",
      {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea", .value = creative.dump()});
  bid(KVABidType::interstitial);
  auto ad = KVAInterstital::create();
  ad->setDelegate(recorder);
  ad->loadAd(lastBid, lastBid->price());
  return ad;
}

void HostilePages::present(const std::string& page, int countdown, Content content) {
  const int ready = recorder->count("didReceive");
  presented_ = beginLoading(page, countdown, content);
  ASSERT_TRUE(heard("didReceive", ready + 1, 20));
  show(*presented_);
}

bool HostilePages::hasActed(int seconds) { return comesTrue("window.acted", seconds); }

void HostilePages::close() {
  auto* content = GTK_WIDGET(window);
  const auto controlIsThere = [&] {
    auto* picked =
        gtk_widget_pick(content, gtk_widget_get_width(content) - 30, 30, GTK_PICK_DEFAULT);
    return picked && gtk_widget_get_ancestor(picked, GTK_TYPE_BUTTON);
  };
  const int before = recorder->count("didDismiss");
  ASSERT_TRUE(spinUntil(controlIsThere)) << "nothing is there to close it with";
  if (const char* shots = g_getenv("KELVARA_SCREENSHOTS"))
    stage::saveScreenshot(window, std::filesystem::path(shots) / (lastPage_ + ".png"));
  clickTopTrailing();
  ASSERT_TRUE(heard("didDismiss", before + 1)) << "the close control did not work";
  closed.insert(lastBid->bidId());
}

std::vector<std::string> HostilePages::heardOfThis() {
  auto events = recorder->events();
  return {events.begin() + static_cast<std::ptrdiff_t>(heardBefore_), events.end()};
}

void HostilePages::expectUneventfulReports() {
  const auto settled = [&](const sandbox::State& state) {
    return std::ranges::all_of(closed, [&](auto& bid) {
      const auto* report = state.report(bid);
      return report && report->dismissed;
    });
  };
  // What happened while an upload was under way waits for the next that happens.
  if (!spinUntil([&] { return settled(server.state()); })) {
    present("plain");
    close();
  }
  EXPECT_TRUE(spinUntil([&] { return settled(server.state()); }, 20));
  const auto state = server.state();
  EXPECT_EQ(state.reports.size(), closed.size()) << "reports of ads that nobody saw";
  for (const auto& report : state.reports) {
    EXPECT_TRUE(report.impression && report.dismissed);
    EXPECT_FALSE(report.clicked || report.failToShow);
  }
}

unsigned HostilePages::windows() { return g_list_model_get_n_items(gtk_window_get_toplevels()); }

WebKitWebView* HostilePages::page() { return lastPageIn(GTK_WIDGET(window)); }

std::string HostilePages::address() {
  auto* shown = page();
  return shown ? webkit_web_view_get_uri(shown) : "no page";
}

std::string HostilePages::evaluate(const std::string& script, int seconds) {
  auto* shown = page();
  if (!shown) return "no page";
  // Outlives this call, for the answer of a busy page may come late.
  auto answer = std::make_shared<std::optional<std::string>>();
  webkit_web_view_evaluate_javascript(
      shown, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr, nullptr,
      [](GObject* from, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::shared_ptr<std::optional<std::string>>> kept(
            static_cast<std::shared_ptr<std::optional<std::string>>*>(data));
        g_autoptr(GError) error = nullptr;
        g_autoptr(JSCValue) value =
            webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(from), result, &error);
        g_autofree char* json = value ? jsc_value_to_json(value, 0) : nullptr;
        **kept = json ? json : error ? error->message : "null";
      },
      new auto(answer));
  return spinUntil([&] { return answer->has_value(); }, seconds) ? **answer : "no answer";
}

bool HostilePages::comesTrue(const std::string& condition, int seconds) {
  return spinUntil([&] { return evaluate("!!(" + condition + ")") == "true"; }, seconds);
}

void HostilePages::killPageProcesses() {
  for (const pid_t process : pageProcesses()) kill(process, SIGKILL);
}

}  // namespace kva::show
