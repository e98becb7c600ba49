#include "show/ShowTest.h"

#include <fstream>
#include <optional>
#include <stdexcept>

#include <Kelvara/Kelvara.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/reporting/ReportManager.h>
#include <stage/RealInput.h>

namespace kva::show {
namespace {

// A control is a box of 60 by 60 in its corner.
constexpr double kControlCentre = 30;

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

}  // namespace

std::vector<pid_t> pageProcesses() {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto process = entry.path().filename().string();
    if (field(process, "Name") == "WebKitWebProces" && !field(process, "State").starts_with("Z") &&
        isOurs(process))
      found.push_back(std::stoi(process));
  }
  return found;
}

void ShowTest::SetUp() {
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
  ASSERT_FALSE(completionOf<std::optional<Error>>(
      [](auto done) { Kelvara::start(std::string(sandbox::kApplicationId), done); }));
}

std::shared_ptr<KVAAd> ShowTest::makeAd(KVABidType kind) {
  const auto recorded = [&](auto ad) -> std::shared_ptr<KVAAd> {
    ad->setDelegate(recorder);
    return ad;
  };
  return kind == KVABidType::rewarded ? recorded(KVARewarded::create())
                                      : recorded(KVAInterstital::create());
}

std::shared_ptr<KVABidResponse> ShowTest::bid(KVABidType kind, std::string_view adUnit) {
  if (adUnit.empty())
    adUnit = kind == KVABidType::rewarded ? sandbox::kRewardedAdUnit : sandbox::kInterstitialAdUnit;
  lastBid = completionOf<std::shared_ptr<KVABidResponse>>([&](auto done) {
    KVABidLoader::loadBid(std::string(adUnit), kind,
                          [done](auto response, auto) { done(response); });
  });
  if (!lastBid) throw std::runtime_error("the bid was refused");
  return lastBid;
}

std::shared_ptr<KVAAd> ShowTest::loaded(KVABidType kind, std::string_view adUnit) {
  auto ad = makeAd(kind);
  const int before = recorder->count("didReceive");
  const auto won = bid(kind, adUnit);
  ad->loadAd(won, won->price());
  EXPECT_TRUE(waitFor("didReceive", before + 1));
  return ad;
}

void ShowTest::show(KVAAd& ad) {
  const int before = recorder->count("didPresent");
  ad.showAdFrom(viewController);
  ASSERT_TRUE(waitFor("didPresent", before + 1));
}

void ShowTest::clickTopTrailing() {
  stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) - kControlCentre, kControlCentre);
}

void ShowTest::clickTopLeading() { stage::click(window, kControlCentre, kControlCentre); }

void ShowTest::clickPage() {
  stage::click(window, gtk_widget_get_width(GTK_WIDGET(window)) * 0.5,
               gtk_widget_get_height(GTK_WIDGET(window)) * 0.5);
}

bool ShowTest::reportsCome(const std::function<bool(const sandbox::State&)>& areComplete) {
  const auto areReported = [&] { return areComplete(server.state()); };
  // An action tracked during an upload is uploaded after the next action.
  if (!spinUntil(areReported))
    ReportManager::shared().trackAction(lastBid->bidId(), {BidReportAction::impression});
  return spinUntil(areReported);
}

sandbox::ReportRecord ShowTest::reportWhen(
    const std::function<bool(const sandbox::ReportRecord&)>& isComplete) {
  sandbox::ReportRecord last;
  EXPECT_TRUE(reportsCome([&](const sandbox::State& state) {
    const auto* report = state.report(lastBid->bidId());
    if (report) last = *report;
    return report && isComplete(last);
  }));
  return last;
}

}  // namespace kva::show
