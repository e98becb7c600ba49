#pragma once

#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <presentation/Stage.h>

namespace kva {

/// Hears all that a host can hear, as texts such as "receive" and "no present 0 Ad isn't ready.".
struct Recorder : KVAInterstitialDelegate, KVARewardedDelegate {
  void interstitialDidReceive(KVAInterstital&) override { hears("receive"); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override {
    hears("no receive", error);
  }
  void interstitialDidPresent(KVAInterstital&) override { hears("present"); }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& error) override {
    hears("no present", error);
  }
  void interstitialDidClick(KVAInterstital&) override { hears("click"); }
  void interstitialDidDismiss(KVAInterstital&) override { hears("dismiss"); }
  void rewardedDidReceive(KVARewarded&) override { hears("receive"); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& error) override {
    hears("no receive", error);
  }
  void rewardedDidPresent(KVARewarded&) override { hears("present"); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& error) override {
    hears("no present", error);
  }
  void rewardedDidClick(KVARewarded&) override { hears("click"); }
  void rewardedDidComplete(KVARewarded&) override { hears("complete"); }
  void rewardedDidDismiss(KVARewarded&) override { hears("dismiss"); }

  void hears(const std::string& event) {
    heard.push_back(event);
    if (onEvent) onEvent();
  }
  void hears(const std::string& event, const Error& error) {
    hears(event + " " + std::to_string(error.code()) + " " + error.localizedDescription());
  }
  std::vector<std::string> heard;
  std::function<void()> onEvent;
};

/// A host with an ad object; an interstitial unless a test makes another.
class AdStage : public Stage {
 protected:
  AdStage() { make<KVAInterstital>(); }

  template <class Kind>
  void make() {
    auto made = Kind::create();
    host = std::make_shared<Recorder>();
    made->setDelegate(host);
    ad = made;
  }
  void load() {
    ad->loadAd(bid(), 1.5);
    h.time.advance(0.1);
  }
  void loadPage(const AdFacts& facts = {}) {
    serveAd(facts);
    load();
    if (page()) page()->finishNavigation();
  }
  void show(const AdFacts& facts = {}) {
    loadPage(facts);
    page()->navigate("kva://preloadComplete");
    present();
  }
  void present() {
    ad->showAdFrom(window->viewController());
    h.time.advance(0.5);
  }
  void close() {
    EXPECT_TRUE(tap("icon.close"));
    h.time.advance(0.5);
  }

  /// The view that the page and the controls stand in.
  std::shared_ptr<View> adView() { return page()->superview()->superview(); }
  /// What the page was told since the last call.
  std::vector<std::string> told() {
    const auto scripts = page()->scripts();
    page()->clearScripts();
    return scripts;
  }
  /// The reports that the server has got, by the time that the next upload is over.
  nlohmann::json uploadedReports() {
    h.server.clearRequests();
    h.time.advance(61);
    const auto sent = h.server.requests("/bid/stats");
    return sent.empty() ? nlohmann::json() : sent.back().json()["stats"];
  }
  void expectNothingLeft() {
    EXPECT_EQ(h.application.liveWebViews(), 0);
    EXPECT_EQ(h.application.liveButtons(), 0);
    EXPECT_EQ(h.application.liveViewControllers(), 0);
    EXPECT_EQ(h.application.liveViews(), viewsBefore);
    EXPECT_EQ(window->presentedCount(), 0);
  }

  std::shared_ptr<KVAAd> ad;
  std::shared_ptr<Recorder> host;
  int viewsBefore = h.application.liveViews();
};

}  // namespace kva
