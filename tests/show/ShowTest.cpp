#include "show/ShowTest.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <Kelvara/Kelvara.h>
#include <Kelvara/reporting/ReportManager.h>
#include <stage/RealInput.h>

namespace kva::show {
namespace {

// Controls are boxes of 60 by 60 in their corners.
constexpr double kControlCentre = 30;

/// Given what hands an answer over from any thread, `ask` has it do so; waits for that.
template <class T>
T answerTo(const std::function<void(std::function<void(T)> answer)>& ask) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  ask([promise](T value) { promise->set_value(std::move(value)); });
  using std::chrono_literals::operator""s;
  if (!spinUntil([&] { return future.wait_for(0s) == std::future_status::ready; }))
    throw std::runtime_error("no answer");
  return future.get();
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

void Recorder::add(const std::string& event) {
  std::scoped_lock lock(mutex_);
  events_.push_back(event);
}

std::vector<std::string> Recorder::events() const {
  std::scoped_lock lock(mutex_);
  return events_;
}

int Recorder::count(const std::string& event) const {
  return static_cast<int>(std::ranges::count(events(), event));
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
  ASSERT_FALSE(answerTo<std::optional<Error>>(
      [](auto answer) { Kelvara::start(std::string(sandbox::kApplicationId), answer); }));
}

std::shared_ptr<KVAAd> ShowTest::makeAd(KVABidType kind) {
  const auto listening = [&](auto ad) {
    ad->setDelegate(recorder);
    return ad;
  };
  if (kind == KVABidType::rewarded) return listening(KVARewarded::create());
  return listening(KVAInterstital::create());
}

std::shared_ptr<KVABidResponse> ShowTest::bid(KVABidType kind, std::string_view adUnit) {
  if (adUnit.empty())
    adUnit = kind == KVABidType::rewarded ? sandbox::kRewardedAdUnit : sandbox::kInterstitialAdUnit;
  lastBid = answerTo<std::shared_ptr<KVABidResponse>>([&](auto answer) {
    KVABidLoader::loadBid(std::string(adUnit), kind,
                          [answer](auto response, auto) { answer(response); });
  });
  if (!lastBid) throw std::runtime_error("the bid was refused");
  return lastBid;
}

std::shared_ptr<KVAAd> ShowTest::loaded(KVABidType kind, std::string_view adUnit) {
  auto ad = makeAd(kind);
  const int before = recorder->count("didReceive");
  const auto won = bid(kind, adUnit);
  ad->loadAd(won, won->price());
  EXPECT_TRUE(heard("didReceive", before + 1));
  return ad;
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

sandbox::ReportRecord ShowTest::reportWhen(
    std::function<bool(const sandbox::ReportRecord&)> enough) {
  const auto awaited = lastBid->bidId();
  sandbox::ReportRecord last;
  const auto hasCome = [&] {
    const auto state = server.state();
    const auto* report = state.report(awaited);
    if (report) last = *report;
    return report && enough(last);
  };
  // What happened while an upload was under way waits for the next that happens, to any bid.
  if (!spinUntil(hasCome))
    ReportManager::shared().trackAction(bid(KVABidType::interstitial)->bidId(),
                                        {BidReportAction::failToShow});
  EXPECT_TRUE(spinUntil(hasCome));
  return last;
}

}  // namespace kva::show
