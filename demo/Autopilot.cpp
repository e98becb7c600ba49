#include "demo/Autopilot.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "demo/Agreement.h"
#include "sandbox/Catalogue.h"
#include "stage/RealInput.h"
#include "stage/Screenshot.h"

namespace demo {
namespace {

using kva::KVABidType;
using namespace std::chrono_literals;

/// Thrown when a step fails. The demo then prints its timeline and ends.
struct StepFailed {
  std::string what;
};

class Autopilot {
 public:
  explicit Autopilot(const Stage& stage) : stage_(stage) {}

  void playAll() {
    require("started", 1, 15s);
    picture("1-started");
    playInterstitial();
    playRewarded();
    loseABid();
  }

  std::vector<Agreement> compare() {
    const nlohmann::json state = stateWithBothReports();
    std::vector<Agreement> rows = compareShown(interstitial_, state);
    rows.push_back({"interstitial: click-through", openedURL(), clickURLServed()});
    for (auto& row : compareShown(rewarded_, state)) rows.push_back(std::move(row));
    rows.push_back(compareLost(lost_, state));
    rows.push_back({"reports of bids", "2", std::to_string(state.at("reports").size())});
    return rows;
  }

 private:
  // The control is a 60 x 60 box in its corner.
  static constexpr double kControlCentre = 30;

  void playInterstitial() {
    interstitial_ = bidFor(KVABidType::interstitial, "interstitial");
    picture("2-bid");
    loadAndShow(KVABidType::interstitial, "interstitial");
    std::this_thread::sleep_for(1s);  // two before the countdown is over
    waitForFirstDrawing();
    picture("3-interstitial-before-countdown");
    onMain([&] { kva::stage::click(stage_.window, width() * 0.5, height() * 0.6); });
    require("interstitialDidClick", 1, 10s);
    require("openURL", 1, 10s);
    std::this_thread::sleep_for(countdown(kva::sandbox::kInterstitialAdUnit));
    picture("4-interstitial-after-countdown");
    clickClose();
    require("interstitialDidDismiss", 1, 10s);
    picture("5-window-restored");
    count(interstitial_, "interstitial");
  }

  void playRewarded() {
    rewarded_ = bidFor(KVABidType::rewarded, "rewarded");
    loadAndShow(KVABidType::rewarded, "rewarded");
    std::this_thread::sleep_for(2s);
    picture("6-rewarded-playing");
    onMain([&] { kva::stage::click(stage_.window, kControlCentre, kControlCentre); });
    std::this_thread::sleep_for(500ms);
    picture("7-rewarded-sound-toggled");
    require("rewardedDidComplete", 1, 30s);
    picture("8-rewarded-skip-and-sound");
    waitForEndCard();
    picture("9-rewarded-ended");
    clickClose();
    require("rewardedDidDismiss", 1, 10s);
    picture("10-window-restored-again");
    count(rewarded_, "rewarded");
    rewarded_.completed = stage_.journal.count("rewardedDidComplete");
    rewarded_.quarters = 4;
  }

  void loseABid() {
    lost_ = bidFor(KVABidType::interstitial, "another interstitial");
    stage_.ads.lose(KVABidType::interstitial);
    lost_.clearingPrice += 500;
    picture("11-all-events");
  }

  PlayedBid bidFor(KVABidType kind, const char* name) {
    const int before = stage_.journal.count("bid");
    stage_.ads.bid(kind);
    require("bid", before + 1, 10s);
    const auto bid = stage_.ads.lastBid(kind);
    return {.kind = name,
            .bidId = bid->bidId(),
            .clearingPrice = static_cast<long>(std::trunc(bid->price() * 1000))};
  }

  void loadAndShow(KVABidType kind, const std::string& name) {
    stage_.ads.load(kind);
    require(name + "DidReceive", 1, 20s);
    noteTemplate();
    onMain([&] { stage_.show(kind); });
    require(name + "DidPresent", 1, 10s);
  }

  void count(PlayedBid& bid, const std::string& name) {
    bid.presented = stage_.journal.count(name + "DidPresent");
    bid.clicked = stage_.journal.count(name + "DidClick");
    bid.dismissed = stage_.journal.count(name + "DidDismiss");
  }

  /// Adds the template that the SDK has fetched, according to the server, to the journal.
  void noteTemplate() {
    const auto exchanges = stage_.sandbox.get("/control/exchanges?endpoint=/template");
    if (!exchanges || exchanges->empty()) return;
    const auto answer =
        nlohmann::json::parse(exchanges->back().value("response", ""), nullptr, false);
    if (answer.is_discarded() || !answer.contains("data")) return;
    const auto& data = answer["data"];
    stage_.journal.add(
        Source::server, "template",
        data.value("tmpl", "") + " version " + std::to_string(data.value("tver", 0)));
  }

  /// On a machine that has drawn no page before, the first page may stay black for over a second.
  void waitForFirstDrawing() {
    constexpr std::uint32_t kBlack = 0xff000000;
    const auto until = std::chrono::steady_clock::now() + 10s;
    for (std::uint32_t colour = kBlack; colour == kBlack;) {
      if (std::chrono::steady_clock::now() > until) throw StepFailed{"the page was not drawn"};
      std::this_thread::sleep_for(50ms);
      onMain([&] { colour = kva::stage::colourInTheMiddle(stage_.window); });
    }
  }

  void waitForEndCard() {
    // The clip continues for three seconds after the countdown has earned the reward.
    std::this_thread::sleep_for(5s);
  }

  nlohmann::json stateWithBothReports() {
    const auto until = std::chrono::steady_clock::now() + 20s;
    nlohmann::json state;
    do {
      std::this_thread::sleep_for(200ms);
      state = stage_.sandbox.get("/control/state").value_or(nlohmann::json::object());
      int dismissed = 0;
      for (const auto& report : state.value("reports", nlohmann::json::array()))
        dismissed += report.value("dism", false) ? 1 : 0;
      if (dismissed == 2) return state;
    } while (std::chrono::steady_clock::now() < until);
    throw StepFailed{"the reports did not arrive"};
  }

  std::string openedURL() const {
    for (const Event& event : stage_.journal.events())
      if (event.name == "openURL") return event.detail;
    return "nothing";
  }

  std::string clickURLServed() const {
    const auto exchanges = stage_.sandbox.get("/control/exchanges?endpoint=/bid/load");
    if (!exchanges || exchanges->empty()) return "nothing";
    const auto answer =
        nlohmann::json::parse(exchanges->front().value("response", ""), nullptr, false);
    return answer.is_discarded() ? "nothing" : answer["data"]["crea"].value("curl", "nothing");
  }

  static std::chrono::seconds countdown(std::string_view adUnit) {
    return std::chrono::seconds(kva::sandbox::findAdUnit(adUnit)->creative->countdown);
  }

  void clickClose() {
    onMain([&] { kva::stage::click(stage_.window, width() - kControlCentre, kControlCentre); });
  }
  double width() const { return gtk_widget_get_width(GTK_WIDGET(stage_.window)); }
  double height() const { return gtk_widget_get_height(GTK_WIDGET(stage_.window)); }

  void require(const std::string& event, int count, std::chrono::seconds limit) {
    if (!stage_.journal.waitFor(event, count, limit)) throw StepFailed{event + " did not happen"};
  }

  void picture(const std::string& name) {
    onMain([&] {
      const auto file = stage_.output / (name + ".png");
      if (!kva::stage::saveScreenshot(stage_.window, file))
        throw StepFailed{"could not save " + file.string()};
    });
  }

  /// Runs `act` on the main thread and waits for it. Rethrows what `act` throws.
  template <class Act>
  void onMain(Act act) {
    std::packaged_task<void()> task(std::move(act));
    g_main_context_invoke(
        nullptr,
        [](gpointer data) -> gboolean {
          (*static_cast<std::packaged_task<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        &task);
    task.get_future().get();
  }

  const Stage& stage_;
  PlayedBid interstitial_, rewarded_, lost_;
};

void printTimeline(const Journal& journal) {
  std::printf("\n%10s  %-7s %-30s %s\n", "ms", "from", "event", "");
  for (const Event& event : journal.events())
    std::printf("%10.0f  %-7s %-30s %s\n", event.milliseconds,
                std::string(name(event.source)).c_str(), event.name.c_str(), event.detail.c_str());
}

}  // namespace

bool play(const Stage& stage) {
  Autopilot autopilot(stage);
  try {
    autopilot.playAll();
    const auto rows = autopilot.compare();
    printTimeline(stage.journal);
    return printTable(rows);
  } catch (const StepFailed& failed) {
    printTimeline(stage.journal);
    std::printf("\nThe demo failed: %s.\n", failed.what.c_str());
    return false;
  }
}

}  // namespace demo
