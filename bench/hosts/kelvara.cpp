// A host of the installed API: host_kelvara SERVER FOLDER SCENARIO [NUMBER...]
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

#include "bench/hosts/Instruments.h"
#include "sandbox/Catalogue.h"
#include "stage/RealInput.h"

namespace {

using namespace kva;
using namespace kva::bench;

/// Until SDK, GTK and WebKit have done what they do after a load; with two views, over five
/// seconds.
constexpr double kSettlingSeconds = 8;

[[noreturn]] void giveUp(const char* what, const Error& error) {
  std::fprintf(stderr, "host: %s: %s\n", what, error.localizedDescription().c_str());
  std::_Exit(1);
}

struct Delegate : KVAInterstitialDelegate {
  bool isReceived = false, isPresented = false, isDismissed = false;

  void interstitialDidReceive(KVAInterstital&) override { isReceived = true; }
  void interstitialDidPresent(KVAInterstital&) override { isPresented = true; }
  void interstitialDidDismiss(KVAInterstital&) override { isDismissed = true; }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override {
    giveUp("no ad", error);
  }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& error) override {
    giveUp("the ad was not shown", error);
  }
};

/// Runs the main loop until the other thread's completion has set a value.
template <class T>
T valueOf(std::future<T> value) {
  runUntil([&] { return value.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  return value.get();
}

class Application {
 public:
  Application(const std::string& server, const std::string& folder)
      : host_({.bundleId = "org.kelvara.bench",
               .userDefaults = folder + "/defaults.sqlite",
               .productionAPIBase = server,
               .sandboxAPIBase = server,
               .networkPolicy = gtk::NetworkPolicy::assumeReachable,
               .logLevel = gtk::LogLevel::none}),
        viewController_(host_.viewController(window_.window())) {}

  void start() {
    std::promise<std::optional<Error>> started;
    Kelvara::start(std::string(sandbox::kApplicationId), [&](auto error) {
      started.set_value(std::move(error));
      g_main_context_wakeup(nullptr);
    });
    if (const auto error = valueOf(started.get_future())) giveUp("no start", *error);
    runFor(kStartSeconds);
  }
  /// Returns the milliseconds from `loadAd` to `interstitialDidReceive`.
  double load() {
    std::promise<std::shared_ptr<KVABidResponse>> won;
    KVABidLoader::loadBid(std::string(sandbox::kInterstitialAdUnit), KVABidType::interstitial,
                          [&](auto bid, auto error) {
                            if (error) giveUp("no bid", *error);
                            won.set_value(std::move(bid));
                            g_main_context_wakeup(nullptr);
                          });
    const auto bid = valueOf(won.get_future());
    auto next = KVAInterstital::create();
    auto delegate = std::make_shared<Delegate>();
    next->setDelegate(delegate);
    const double begin = now();
    next->loadAd(bid, bid->price());
    runUntil([&] { return delegate->isReceived; });
    const double taken = now() - begin;
    ad_ = std::move(next);
    delegate_ = std::move(delegate);
    return taken;
  }
  void show() { ad_->showAdFrom(viewController_); }
  void waitUntilPresented() {
    runUntil([&] { return delegate_->isPresented; });
  }
  void clickClose() const {
    constexpr double kControlCentre = 30;
    const int width = gtk_widget_get_width(GTK_WIDGET(window_.window()));
    stage::click(window_.window(), width - kControlCentre, kControlCentre);
  }
  /// Clicks again each second: on a busy machine the control may come after the click.
  void waitUntilDismissed() {
    const guint again = g_timeout_add_seconds(
        1,
        [](gpointer self) -> gboolean {
          static_cast<const Application*>(self)->clickClose();
          return G_SOURCE_CONTINUE;
        },
        this);
    runUntil([&] { return delegate_->isDismissed; });
    g_source_remove(again);
  }
  GtkWindow* window() const { return window_.window(); }

 private:
  HostWindow window_;
  gtk::Host host_;
  std::shared_ptr<ViewController> viewController_;
  std::shared_ptr<KVAInterstital> ad_;
  std::shared_ptr<Delegate> delegate_;
};

void loadAds(Application& application, double count, double pause) {
  for (int i = 0; i < count; ++i) {
    if (i > 0 && pause > 0) runFor(pause);
    report("load", application.load());
  }
}

void showAd(Application& application) {
  application.load();
  runFor(1);
  PixelWatch watch(application.window());
  const double begin = now();
  application.show();
  runFor(1);
  const auto shown = watch.since(begin);
  report("firstPixel", shown.firstPixel);
  report("finalColour", shown.finalColour);
  report("darkest", shown.darkest);
}

void measureGaps(Application& application) {
  application.load();
  runFor(1);
  {
    LoopGap gap;
    application.show();
    application.waitUntilPresented();
    runFor(0.3);
    report("gapAtShow", gap.longest());
  }
  application.clickClose();
  LoopGap gap;
  application.waitUntilDismissed();
  runFor(0.3);
  report("gapAtDismissal", gap.longest());
}

void keepAdOnScreen(Application& application, double seconds) {
  application.load();
  application.show();
  application.waitUntilPresented();
  runFor(kSettlingSeconds);
  reportCost(seconds);
}

void stayIdle(Application&, double seconds) {
  runFor(kSettlingSeconds);
  reportCost(seconds);
  report("memory", privateMemory());
}

void showAds(Application& application, double count) {
  for (int shown = 1; shown <= count; ++shown) {
    application.load();
    application.show();
    application.waitUntilPresented();
    application.clickClose();
    application.waitUntilDismissed();
    if (shown > 1 && shown < count) continue;
    runFor(kSettlingSeconds);
    report("memory", privateMemory());
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 2;
  const std::string scenario = arguments[3];
  const auto number = [&](int index) { return count > index ? std::atof(arguments[index]) : 0; };
  gtk_init();
  Application application(arguments[1], arguments[2]);
  application.start();
  if (scenario == "load") loadAds(application, number(4), number(5));
  if (scenario == "show") showAd(application);
  if (scenario == "gaps") measureGaps(application);
  if (scenario == "shown") keepAdOnScreen(application, number(4));
  if (scenario == "idle") stayIdle(application, number(4));
  if (scenario == "ads") showAds(application, number(4));
}
