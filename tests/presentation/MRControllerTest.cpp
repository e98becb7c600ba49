#include <random>

#include <Kelvara/presentation/MRController.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Screen : MRControllerDelegate {
  void controllerAdReady(MRController&, std::shared_ptr<AdView> ready) override {
    adView = std::move(ready);
    heard.push_back("ready");
  }
  void controllerAdFailed(MRController&, const Error&) override { heard.push_back("failed"); }
  void controllerAdClicked(MRController&) override { heard.push_back("clicked"); }
  void controllerRewardEarned(MRController&) override { heard.push_back("reward"); }
  void controllerVideoComplete(MRController&) override { heard.push_back("video complete"); }
  void controllerAdDismiss(MRController&) override { heard.push_back("dismiss"); }
  void controllerVideoEvent(MRController&, double, double) override { heard.push_back("video"); }

  std::shared_ptr<AdView> adView;
  std::vector<std::string> heard;
};

class Bridge : public Stage {
 protected:
  void make(const AdFacts& facts = {}) {
    controller = MRController::create(Ad::decode(adJson(facts)).value());
    controller->setDelegate(screen);
    controller->loadAd();
    h.time.advance(0.1);
  }
  /// What the page was told since the last call.
  std::vector<std::string> told() {
    const auto scripts = page()->scripts();
    page()->clearScripts();
    return scripts;
  }
  void place(Layout layout = Layout::edges(Layout::Area::plain)) {
    window->view()->addSubview(screen->adView->view(), layout);
  }
  void present(const AdFacts& facts = {}) {
    make(facts);
    page()->finishNavigation();
    page()->navigate("kva://preloadComplete");
    controller->willPresentVC();
    place();
    controller->didPresentVC();
    h.time.run();
    told();
  }

  std::shared_ptr<Screen> screen = std::make_shared<Screen>();
  std::shared_ptr<MRController> controller;
};

TEST_F(Bridge, TellsThePageWhatHasChangedAndNothingElse) {
  make();
  EXPECT_THAT(told(), IsEmpty());
  page()->finishNavigation();
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 400.0, 800.0);",
                                  "mraidbridge.setScreenSize(1280.0, 1024.0);",
                                  "mraidbridge.setMaxSize(400.0, 800.0);",
                                  "window.mraidbridge.fireReadyEvent();"));
  controller->willPresentVC();
  place();
  h.time.advance(5);
  EXPECT_THAT(told(), IsEmpty()) << "while it is being presented";
  controller->didPresentVC();
  EXPECT_THAT(told(),
              ElementsAre("mraidbridge.fireChangeEvent({supports: {sms: false, tel: false, "
                          "calendar: false, storePicture: false, inlineVideo: true}, state: "
                          "'default'});",
                          "mraidbridge.setDefaultPosition(0.0, 0.0, 400.0, 800.0);",
                          "mraidbridge.fireChangeEvent({viewable: true});"));
  h.time.advance(5);
  EXPECT_THAT(told(), IsEmpty());

  window->setFrame({0, 0, 800, 400});
  h.application.setScreenSize({1024, 1280});
  h.time.advance(0.9);
  h.time.advance(0.2);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 800.0, 400.0);",
                                  "mraidbridge.setDefaultPosition(0.0, 0.0, 800.0, 400.0);",
                                  "mraidbridge.setScreenSize(1024.0, 1280.0);",
                                  "mraidbridge.setMaxSize(800.0, 400.0);"));
  h.application.setScreenSize({1, 1});
  h.device.setOrientation(DeviceOrientation::landscapeLeft);
  h.time.run();
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setScreenSize(1.0, 1.0);",
                                  "mraidbridge.fireChangeEvent({orientationDegree: 0});"));
}

TEST_F(Bridge, IsViewableOnlyWhereTheUserSeesIt) {
  present();
  const auto adView = screen->adView->view();
  const auto changes = std::vector<std::pair<const char*, std::function<void(bool)>>>{
      {"the application is not active",
       [&](bool undo) {
         h.application.setState(undo ? HostApplication::State::active
                                     : HostApplication::State::inactive);
       }},
      {"it is hidden", [&](bool undo) { adView->setHidden(!undo); }},
      {"what it stands in is hidden", [&](bool undo) { window->view()->setHidden(!undo); }},
      {"it is out of the window",
       [&](bool undo) {
         undo ? place() : place(Layout::frame({0, 800, 400, 800}));
       }},
      {"it has no window", [&](bool undo) { undo ? place() : adView->removeFromSuperview(); }},
  };
  for (const auto& [what, change] : changes) {
    change(false);
    h.time.advance(1.1);
    EXPECT_THAT(told(), testing::Contains("mraidbridge.fireChangeEvent({viewable: false});"))
        << what;
    change(true);
    h.time.advance(1.1);
    EXPECT_THAT(told(), testing::Contains("mraidbridge.fireChangeEvent({viewable: true});"))
        << what;
  }
  place(Layout::frame({0, 799, 400, 800}));
  h.time.advance(1.1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setDefaultPosition(0.0, 799.0, 400.0, 800.0);"));
}

TEST_F(Bridge, RespectsTheSafeAreaOrTheBannersPlace) {
  make({.shouldCareSafeArea = true});
  page()->finishNavigation();
  EXPECT_THAT(told(), testing::IsSupersetOf({"mraidbridge.setCurrentPosition(0.0, 20.0, 400.0, "
                                             "746.0);",
                                             "mraidbridge.setMaxSize(400.0, 746.0);"}));

  make({.adType = "banner"});
  page()->finishNavigation();
  EXPECT_THAT(told(), testing::Not(testing::Contains(testing::HasSubstr("CurrentPosition"))));
  const auto holder = h.application.makeView({});
  window->view()->addSubview(holder, Layout::frame({10, 20, 320, 50}));
  holder->addSubview(screen->adView->view(), Layout::frame({1, 2, 300, 40}));
  h.time.advance(1.1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(11.0, 22.0, 300.0, 40.0);",
                                  "mraidbridge.setDefaultPosition(11.0, 22.0, 300.0, 40.0);",
                                  "mraidbridge.fireChangeEvent({viewable: true});"));
}

TEST_F(Bridge, FiltersNavigations) {
  present({.contentType = "video"});
  const std::vector<std::tuple<const char*, bool, const char*>> navigations = {
      {"https://example.org/page", true, ""},
      {"about:blank", true, ""},
      {"no address", false, ""},
      {"ios-log://anything", false, ""},
      {"mraid://close?a=b", false,
       "window.mraidbridge.fireErrorEvent('close', 'Command not found!');"},
      {"mraid://resize?width=1&height=2", false,
       "window.mraidbridge.fireErrorEvent('resize', 'Size parameters not found!');"},
      {"mraid://open?url=tel%3A112", false,
       "window.mraidbridge.fireErrorEvent('open', 'Scheme not supported: tel');"},
      {"mraid://resize?width=1&height=2&offsetX=3&offsetY=4", false, ""},
      {"kva://close", false, "window.mraidbridge.fireErrorEvent('close', 'Command not found!');"},
      // Refused for good, as nothing can be read out of them.
      {"mraid://close", false, ""},
      {"mraid://open?", false, ""},
      {"mraid://open?url", false, ""},
      {"mraid:open?url=https://example.org", false, ""},
      {"mraid://?url=x", false, ""},
      {"kva:videoComplete", false, ""},
      {"kva://videoComplete?", false, ""},
      {"kva://videoComplete?a&b=c", false, ""},
  };
  for (const auto& [url, allowed, script] : navigations) {
    EXPECT_EQ(page()->navigate(url), allowed) << url;
    if (*script)
      EXPECT_THAT(told(), ElementsAre(script)) << url;
    else
      EXPECT_THAT(told(), IsEmpty()) << url;
  }
  EXPECT_THAT(screen->heard, ElementsAre("ready"));
}

TEST_F(Bridge, OutlivesMalformedCommandsByTheThousand) {
  make({.contentType = "video"});
  std::mt19937 random(20240521);
  const std::vector<std::string> pieces = {
      "mraid:", "kva:", "//",  "open",       "resize",   "preloadComplete", "videoComplete",
      "?",      "&",    "=",   "url",        "duration", "currenttime",     "%",
      "%zz",    "%00",  "%ff", "+",          "#",        "1e309",           "'",
      "@",      ":",    "[",   "videoEvent", "-",        "https://a.b",     std::string(4096, 'x')};
  for (int i = 0; i < 20'000; ++i) {
    if (i == 10'000) page()->finishNavigation();
    std::string url = random() % 2 ? "mraid://" : "kva://";
    for (auto n = random() % 8; n > 0; --n) url += pieces[random() % pieces.size()];
    EXPECT_FALSE(page()->navigate(url)) << url;
  }
  EXPECT_THAT(h.application.openedURLs(), IsEmpty());
  EXPECT_EQ(std::ranges::count(screen->heard, "ready"), 1);
}

TEST_F(Bridge, TellsThePageOfSkipAndSound) {
  present({.contentType = "video"});
  EXPECT_TRUE(tap("icon.soundonn"));
  EXPECT_THAT(told(), ElementsAre("mraidbridge.fireChangeEvent({videoMuted: true});"));
  controller->adViewDidTapSoundMute(*screen->adView, true);
  EXPECT_THAT(told(), IsEmpty());
  h.time.run();
  EXPECT_TRUE(tap("icon.soundoff"));
  EXPECT_THAT(told(), ElementsAre("mraidbridge.fireChangeEvent({videoMuted: false});"));
  EXPECT_TRUE(tap("icon.adchoices"));
  EXPECT_THAT(h.application.openedURLs(), ElementsAre("https://example.org/privacy"));
  EXPECT_TRUE(tap("icon.skip"));
  EXPECT_THAT(told(), ElementsAre("window.mraidbridge.fireChangeEvent({skipTapped: true});"));
  EXPECT_THAT(screen->heard, ElementsAre("ready"));
}

TEST_F(Bridge, IsKeptAliveByNothingOnceItIsDropped) {
  present({.arcDuration = 5});
  const std::weak_ptr<MRController> dropped = controller;
  controller.reset();
  EXPECT_TRUE(dropped.expired());
  const auto scripts = page()->scripts().size();
  window->setFrame({0, 0, 100, 100});
  h.device.setOrientation(DeviceOrientation::landscapeLeft);
  h.time.advance(10);
  EXPECT_EQ(page()->scripts().size(), scripts);
  EXPECT_THAT(screen->heard, ElementsAre("ready"));
}

TEST_F(Bridge, TemplateThatArrivesTooLateMeetsNothing) {
  h.server.reply("/template", headless::errorEnvelope(1, "None."), 5);
  make();
  controller.reset();
  h.time.advance(10);
  EXPECT_THAT(screen->heard, IsEmpty());
}

TEST_F(Bridge, CloseStopsThePoll) {
  present();
  EXPECT_TRUE(tap("icon.close"));
  EXPECT_THAT(screen->heard, ElementsAre("ready", "dismiss"));
  window->setFrame({0, 0, 100, 100});
  h.time.advance(5);
  EXPECT_THAT(told(), IsEmpty());
}

}  // namespace
}  // namespace kva
