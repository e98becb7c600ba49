#pragma once

#include <webkit/webkit.h>

#include <stdexcept>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>
#include <Kelvara/reporting/ReportManager.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>
#include <stage/RealInput.h>

#include "platform/linux_support.h"
#include "support/AdRecorder.h"

namespace kva::show {

using test::spinFor;
using test::spinUntil;

// A control is a box of 60 by 60 in its corner.
inline constexpr double kControlCentre = 30;

/// Calls `request` with a completion that any thread may call, and waits for its value.
template <class T>
T completionOf(const std::function<void(std::function<void(T)>)>& request) {
  auto value = std::make_shared<Guarded<std::optional<T>>>();
  request([value](T given) { value->set(std::move(given)); });
  if (!spinUntil([&] { return value->get().has_value(); }))
    throw std::runtime_error("no completion was called");
  return *value->get();
}

/// A field of /proc/<process>/status.
inline std::string field(const std::string& process, const std::string& name) {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  return {};
}

inline bool isOurs(std::string process) {
  while (!process.empty() && process != "0" && process != std::to_string(getpid()))
    process = field(process, "PPid");
  return process == std::to_string(getpid());
}

/// The web processes that descend from this process.
inline std::vector<pid_t> pageProcesses() {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto process = entry.path().filename().string();
    if (field(process, "Name") == "WebKitWebProces" && !field(process, "State").starts_with("Z") &&
        isOurs(process))
      found.push_back(std::stoi(process));
  }
  return found;
}

/// The newest page of an ad in the widget. The pool's view is a child of the SDK's layer in a
/// window.
inline WebKitWebView* lastPageIn(GtkWidget* widget) {
  if (WEBKIT_IS_WEB_VIEW(widget)) {
    auto* layer = gtk_widget_get_parent(gtk_widget_get_parent(widget));
    return GTK_IS_WINDOW(gtk_widget_get_parent(layer)) ? nullptr : WEBKIT_WEB_VIEW(widget);
  }
  for (auto* child = gtk_widget_get_last_child(widget); child;
       child = gtk_widget_get_prev_sibling(child))
    if (auto* found = lastPageIn(child)) return found;
  return nullptr;
}

/// A host with one window, the real SDK, and the sandbox ad server in the same process.
class ShowTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    std::filesystem::create_directory_symlink(KELVARA_RESOURCES,
                                              folder.path / "KelvaraResources.bundle");
    gtk::HostOptions options;
    options.bundleId = "org.kelvara.show";
    options.appVersion = "1.0";
    options.mainBundle = folder.path;
    options.userDefaults = folder.path / "defaults" / "defaults.sqlite";
    options.productionAPIBase = options.sandboxAPIBase = server.baseURL();
    options.networkPolicy = gtk::NetworkPolicy::assumeReachable;
    options.openURL = [this](const std::string& url) { opened.push_back(url); };
    host = std::make_unique<gtk::Host>(options);
    openWindow();
  }
  void TearDown() override {
    viewController.reset();
    host.reset();
    gtk_window_destroy(window);
  }

  /// Opens the host's window. The first is open already.
  void openWindow() {
    window = GTK_WINDOW(gtk_window_new());
    gtk_window_set_default_size(window, 800, 600);
    gtk_window_set_child(window, gtk_label_new("The host's own content"));
    viewController = host->viewController(window);
    gtk_window_present(window);
  }
  /// Starts the SDK and waits for it. Fails the test if it cannot start.
  void start() {
    ASSERT_FALSE(completionOf<std::optional<Error>>(
        [](auto done) { Kelvara::start(std::string(sandbox::kApplicationId), done); }));
  }
  std::shared_ptr<KVAAd> makeAd(KVABidType kind) { return test::makeAd(kind, recorder); }
  /// Bids for the catalogue's ad unit of this kind, and sets `lastBid`.
  std::shared_ptr<KVABidResponse> bid(KVABidType kind) {
    const std::string adUnit(kind == KVABidType::rewarded ? sandbox::kRewardedAdUnit
                                                          : sandbox::kInterstitialAdUnit);
    lastBid = completionOf<std::shared_ptr<KVABidResponse>>([&](auto done) {
      KVABidLoader::loadBid(adUnit, kind, [done](auto response, auto) { done(response); });
    });
    if (!lastBid) throw std::runtime_error("the bid was refused");
    return lastBid;
  }
  /// Bids and loads, and waits until the ad is ready.
  std::shared_ptr<KVAAd> loaded(KVABidType kind) {
    auto ad = makeAd(kind);
    const int before = recorder->count("didReceive");
    const auto won = bid(kind);
    ad->loadAd(won, won->price());
    EXPECT_TRUE(waitFor("didReceive", before + 1));
    return ad;
  }
  /// Shows the ad and waits until it covers the window.
  void show(KVAAd& ad) {
    const int before = recorder->count("didPresent");
    ad.showAdFrom(viewController);
    ASSERT_TRUE(waitFor("didPresent", before + 1));
  }
  /// Clicks the close or skip control, the sound control, or the middle of the page.
  void clickTopTrailing() {
    stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) - kControlCentre, kControlCentre);
  }
  void clickTopLeading() { stage::click(window, kControlCentre, kControlCentre); }
  void clickPage() {
    stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) * 0.5,
                 gtk_widget_get_height(GTK_WIDGET(window)) * 0.5);
  }
  bool waitFor(const std::string& event, int times = 1, int seconds = 10) {
    return spinUntil([&] { return recorder->count(event) >= times; }, seconds);
  }
  /// Waits until `areComplete` holds for the reports of the server's state.
  bool reportsCome(const std::function<bool(const sandbox::State&)>& areComplete) {
    const auto areReported = [&] { return areComplete(server.state()); };
    // An action tracked during an upload is uploaded after the next action.
    if (!spinUntil(areReported))
      ReportManager::shared().trackAction(lastBid->bidId(), {BidReportAction::impression});
    return spinUntil(areReported);
  }
  /// The newest page of an ad; null without one.
  WebKitWebView* page() { return lastPageIn(GTK_WIDGET(window)); }
  bool isOnlyWarmPageLeft() {
    return spinUntil([] { return pageProcesses().size() <= 1; });
  }

  test::TemporaryFolder folder;
  sandbox::Server server;
  std::unique_ptr<gtk::Host> host;
  GtkWindow* window = nullptr;
  std::shared_ptr<ViewController> viewController;
  std::shared_ptr<test::AdRecorder> recorder = std::make_shared<test::AdRecorder>();
  std::shared_ptr<KVABidResponse> lastBid;
  std::vector<std::string> opened;
};

}  // namespace kva::show
