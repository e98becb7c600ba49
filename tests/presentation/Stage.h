#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/presentation/FullscreenAd.h>
#include <platform/headless/Headless.h>

namespace kva {

inline constexpr const char* kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
inline constexpr const char* kPlanId = "11111111-C36C-495A-93FC-0C247A3E6E5F";

/// The ad that the server has: what tests vary of it.
struct AdFacts {
  std::string contentType = "image";
  int arcDuration = 0;
  std::string adType = "interstitial";
  bool shouldCareSafeArea = false;
};

inline nlohmann::json adJson(const AdFacts& facts, const std::string& bidId = "bid") {
  return {{"bid", bidId},
          {"tmpl", "template"},
          {"fls", nlohmann::json::array()},
          {"crea",
           {{"id", "creative"},
            {"adt", facts.adType},
            {"ctyp", facts.contentType},
            {"adur", facts.arcDuration},
            {"titl", "A title"},
            {"bton", "{}"},
            {"deta", "{}"},
            {"shouldCareSafeArea", facts.shouldCareSafeArea}}}};
}

/// A started SDK on a device with one window, a registered user and a server that has one ad.
class Stage : public testing::Test {
 protected:
  Stage() {
    h.mainBundle.embedResources(KELVARA_RESOURCES);
    h.defaults.set(SDKHelper::UserDefaultKeys::userId, std::string("user"));
    h.server.reply("/bid/stats", headless::envelope("null"));
    serveTemplate("<html>[@TITLE_TEXT]</html>");
    launch();
  }

  /// Ends the process, if one runs. The new one has not started the SDK.
  void restart() {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
  }
  /// Likewise, and starts the SDK.
  void launch() {
    restart();
    nlohmann::json application = {{"aid", kAppId},
                                  {"pp", "https://example.org/privacy"},
                                  {"sett", {{"dip", statsSendPeriod * 100}, {"sndm", false}}}};
    h.server.reply("/init", headless::envelope(application.dump()));
    Kelvara::start(kAppId, [](std::optional<Error>) {});
    EXPECT_TRUE(h.time.runUntil([] { return Kelvara::isInitialized(); }));
  }

  void serveAd(const AdFacts& facts) {
    h.server.reply("/bid/load", [facts](const headless::SentRequest& request) {
      return headless::answer(
          headless::envelope(adJson(facts, request.json()["bid"].get<std::string>()).dump()));
    });
  }

  void serveTemplate(const std::string& html) {
    nlohmann::json document = {
        {"tmpl", "template"}, {"adt", "interstitial"}, {"html", html}, {"tver", 1}};
    h.server.reply("/template", headless::envelope(document.dump()));
  }

  /// A bid of its own for each load.
  std::shared_ptr<KVABidResponse> bid() {
    std::string id = "22222222-0000-0000-0000-000000000000";
    id.replace(28, 8, std::to_string(10000000 + ++bidCount));
    return std::make_shared<KVABidResponse>(kPlanId, id, 1.5);
  }

  std::shared_ptr<headless::HeadlessWebView> page() { return h.application.webView(); }
  /// Whether the user sees the control with this image.
  bool sees(std::string_view image) {
    auto button = h.application.button(image);
    return button && button->isShown();
  }
  bool tap(std::string_view image) { return window->tap(h.application.button(image)->view()); }

  headless::Headless h;
  std::shared_ptr<headless::HeadlessWindow> window =
      h.application.makeWindow({0, 0, 400, 800}, {20, 0, 34, 0});
  std::unique_ptr<Runtime> runtime;
  int statsSendPeriod = 60;  ///< of the next launch
  int bidCount = 0;
};

/// What a host hears of its ad, as texts such as "receive" and "no present 0 Ad isn't ready.".
struct Recorder {
  static void record(Recorder& host, FullscreenAd&, AdEvent event,
                     const std::optional<Error>& error) {
    static const char* const names[] = {"receive", "no receive", "present", "no present",
                                        "click",   "complete",   "dismiss"};
    std::string text = names[static_cast<int>(event)];
    if (error) text += " " + std::to_string(error->code()) + " " + error->localizedDescription();
    host.heard.push_back(text);
    if (host.onEvent) host.onEvent();
  }
  std::vector<std::string> heard;
  std::function<void()> onEvent;
};

/// A host with an ad object.
class AdStage : public Stage {
 protected:
  AdStage() { makeAd(); }

  void makeAd(AdType adType = AdType::interstitial) {
    ad = std::make_shared<FullscreenAd>(adType);
    host = std::make_shared<Recorder>();
    ad->setDelegate(std::weak_ptr(host), std::weak_ptr(ad), Recorder::record);
  }
  void load() {
    ad->loadAd(bid(), 1.5);
    h.time.advance(0.1);
  }
  void loadPage(const AdFacts& facts = {}) {
    serveAd(facts);
    load();
    page()->finishNavigation();
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
    EXPECT_EQ(h.application.liveViews(), viewsBefore);
    EXPECT_EQ(h.application.liveViewControllers(), 0);
    EXPECT_EQ(window->presentedCount(), 0);
  }

  std::shared_ptr<FullscreenAd> ad;
  std::shared_ptr<Recorder> host;
  int viewsBefore = h.application.liveViews();
};

}  // namespace kva
