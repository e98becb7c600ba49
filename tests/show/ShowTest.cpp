#include "show/ShowTest.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include <Kelvara/Kelvara.h>
#include <stage/RealInput.h>

namespace kva::show {
namespace {

// Controls are boxes of 60 by 60 in their corners.
constexpr double kControlCentre = 30;

}  // namespace

void Recorder::add(std::string event) {
  std::scoped_lock lock(mutex_);
  events_.push_back(std::move(event));
}

std::vector<std::string> Recorder::events() const {
  std::scoped_lock lock(mutex_);
  return events_;
}

int Recorder::count(const std::string& event) const {
  std::scoped_lock lock(mutex_);
  return static_cast<int>(std::ranges::count(events_, event));
}

void ShowTest::SetUp() {
  ASSERT_TRUE(server.start());
  gtk::HostOptions options;
  options.bundleId = "org.kelvara.show";
  options.appVersion = "1.0";
  options.mainBundle = folder.path;
  std::filesystem::create_directory_symlink(KELVARA_RESOURCES,
                                            folder.path / "KelvaraResources.bundle");
  options.userDefaults = folder.path / "defaults" / "defaults.sqlite";
  options.productionAPIBase = options.sandboxAPIBase = server.baseURL();
  options.networkPolicy = gtk::NetworkPolicy::assumeReachable;
  options.openURL = [this](const std::string& url) { opened.push_back(url); };
  host = std::make_unique<gtk::Host>(options);
  window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_default_size(window, 800, 600);
  gtk_window_set_child(window, gtk_label_new("The host's own content"));
  viewController = host->viewController(window);
  gtk_window_present(window);
}

void ShowTest::TearDown() {
  viewController.reset();
  host.reset();
  if (window) gtk_window_destroy(window);
}

void ShowTest::start() {
  std::optional<std::optional<Error>> outcome;
  std::mutex mutex;
  Kelvara::start(std::string(sandbox::kApplicationId), [&](std::optional<Error> error) {
    std::scoped_lock lock(mutex);
    outcome = error;
  });
  ASSERT_TRUE(spinUntil([&] {
    std::scoped_lock lock(mutex);
    return outcome.has_value();
  }));
  ASSERT_FALSE(*outcome) << (*outcome)->localizedDescription();
}

std::shared_ptr<KVABidResponse> ShowTest::bid(std::string_view adUnit, KVABidType kind) {
  std::shared_ptr<KVABidResponse> won;
  bool answered = false;
  std::mutex mutex;
  KVABidLoader::loadBid(std::string(adUnit), kind, [&](auto response, auto error) {
    EXPECT_FALSE(error) << error->localizedDescription();
    std::scoped_lock lock(mutex);
    won = response;
    answered = true;
  });
  EXPECT_TRUE(spinUntil([&] {
    std::scoped_lock lock(mutex);
    return answered;
  }));
  return won;
}

void ShowTest::show(KVAAd& ad) {
  const int before = recorder->count("didPresent");
  ad.showAdFrom(viewController);
  ASSERT_TRUE(heard("didPresent", before + 1));
}

void ShowTest::clickTopTrailing() {
  stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) - kControlCentre, kControlCentre);
}

void ShowTest::clickTopLeading() { stage::click(window, kControlCentre, kControlCentre); }

void ShowTest::clickPage() {
  stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) * 0.5,
               gtk_widget_get_height(GTK_WIDGET(window)) * 0.5);
}

void ShowTest::pressEscape() { stage::typeKey(window, GDK_KEY_Escape); }

sandbox::ReportRecord ShowTest::reportWhen(
    std::function<bool(const sandbox::ReportRecord&)> enough) {
  sandbox::ReportRecord last;
  EXPECT_TRUE(spinUntil(
      [&] {
        const auto state = server.state();
        const auto* report = state.report(lastBid->bidId());
        if (report) last = *report;
        return report && enough(last);
      },
      20));
  return last;
}

bool ShowTest::spinUntil(const std::function<bool()>& done, int seconds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  // Wakes the loop often enough to look at what other threads have brought about.
  const guint wake = g_timeout_add(
      10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool isDone = done();
  while (!isDone && std::chrono::steady_clock::now() < limit) {
    g_main_context_iteration(nullptr, TRUE);
    isDone = done();
  }
  g_source_remove(wake);
  return isDone;
}

void ShowTest::spinFor(double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  spinUntil([&] { return std::chrono::steady_clock::now() >= until; },
            static_cast<int>(seconds) + 10);
}

}  // namespace kva::show
