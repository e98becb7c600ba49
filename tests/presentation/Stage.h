#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/presentation/FullscreenAd.h>
#include <platform/headless/Headless.h>
#include <support/AdRecorder.h>

namespace kva {

inline constexpr const char* kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
inline constexpr const char* kPlanId = "11111111-C36C-495A-93FC-0C247A3E6E5F";

enum class Network { down, up };

/// The parts of the server's ad that tests vary.
struct AdFacts {
  std::string contentType = "image";
  int arcDuration = 0;
  std::string adType = "interstitial";
  bool shouldCareSafeArea = false;
};

inline Json adJson(const AdFacts& facts, const std::string& bidId = "bid") {
  Json ad = Json::parse(R"({"bid": "", "tmpl": "template", "fls": [], "crea": {
      "id": "creative", "titl": "A title", "bton": "{}", "deta": "{}"}})");
  ad["bid"] = bidId;
  ad["crea"].update({{"adt", facts.adType},
                     {"ctyp", facts.contentType},
                     {"adur", facts.arcDuration},
                     {"shouldCareSafeArea", facts.shouldCareSafeArea}});
  return ad;
}

/// A started SDK that logs at debug level, on a device with one window, a registered user and a
/// server with one ad.
class Stage : public testing::Test {
 protected:
  Stage() {
    h.mainBundle.embedResources(KELVARA_RESOURCES);
    h.defaults.set(SDKHelper::UserDefaultKeys::userId, std::string("user"));
    h.server.reply("/bid/stats", headless::envelope("null"));
    serveTemplate("<html>[@TITLE_TEXT]</html>");
    launch();
  }

  /// Replaces the process by one in which the SDK is not started.
  void restart() {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
  }
  /// Replaces the process by one in which the SDK is started.
  void launch() {
    restart();
    Log::shared().setLogLevel(LogLevel::d);
    const Json application = {{"aid", kAppId},
                              {"pp", "https://example.org/privacy"},
                              {"sett", {{"dip", statsSendPeriod * 100}, {"sndm", false}}}};
    h.server.reply("/init", headless::envelope(application.dump()));
    Kelvara::start(kAppId, [](std::optional<Error>) {});
    EXPECT_TRUE(h.time.runUntil([] { return Kelvara::isInitialized(); }));
  }
  void setNetwork(Network network) {
    h.reachability.setFlags(network == Network::up ? h.reachability.kReachable : 0);
    h.time.run();
  }
  void refuse(const char* path, std::int64_t code, const char* message, double delaySeconds = 0) {
    h.server.reply(path, headless::errorEnvelope(code, message), delaySeconds);
  }
  void serveAd(const AdFacts& facts) {
    h.server.reply("/bid/load", [facts](const headless::SentRequest& request) {
      return headless::answer(
          headless::envelope(adJson(facts, request.json()["bid"].get<std::string>()).dump()));
    });
  }
  void serveTemplate(const std::string& html) {
    const Json document = {
        {"tmpl", "template"}, {"adt", "interstitial"}, {"html", html}, {"tver", 1}};
    h.server.reply("/template", headless::envelope(document.dump()));
  }
  /// A new bid.
  std::shared_ptr<KVABidResponse> bid() {
    return std::make_shared<KVABidResponse>(
        kPlanId, "22222222-0000-0000-0000-0000" + std::to_string(10000000 + ++bidCount), 1.5);
  }
  /// The JSON under a key of the user defaults; null if there is none.
  Json stored(const char* key) {
    const auto bytes = h.defaults.get<Bytes>(key);
    return bytes ? Json::parse(asText(*bytes)) : Json();
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

/// A host with an ad object.
class AdStage : public Stage {
 protected:
  AdStage() { makeAd(); }

  void makeAd(KVABidType kind = KVABidType::interstitial) {
    host = std::make_shared<test::AdRecorder>();
    ad = test::makeAd(kind, host);
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

  /// The view that contains the page and the controls.
  std::shared_ptr<View> adView() { return page()->superview()->superview(); }
  /// Returns and forgets the scripts that the page was sent.
  std::vector<std::string> takeScripts() {
    const auto scripts = page()->scripts();
    page()->clearScripts();
    return scripts;
  }
  /// Waits for the next upload and returns its reports; null if there is none.
  Json uploadedReports() {
    h.server.clearRequests();
    h.time.advance(61);
    const auto sent = h.server.requests("/bid/stats");
    return sent.empty() ? Json() : sent.back().json()["stats"];
  }
  void expectNothingLeft() {
    EXPECT_EQ(h.application.liveViews(), viewsBefore);
    EXPECT_EQ(h.application.liveViewControllers(), 0);
    EXPECT_EQ(window->presentedCount(), 0);
  }

  std::shared_ptr<KVAAd> ad;
  std::shared_ptr<test::AdRecorder> host;
  int viewsBefore = h.application.liveViews();
};

}  // namespace kva
