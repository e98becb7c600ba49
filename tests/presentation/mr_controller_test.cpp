#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::Contains, testing::ElementsAre, testing::IsEmpty, testing::MatchesRegex;

using MRControllers = AdStage;

constexpr const char* kIsViewable = "mraidbridge.fireChangeEvent({viewable: true});";
constexpr const char* kIsNotViewable = "mraidbridge.fireChangeEvent({viewable: false});";

TEST_F(MRControllers, SendEachLoadedPageAllPropertiesAndThenOnlyChanges) {
  serveAd({});
  load();
  h.device.setOrientation(DeviceOrientation::landscapeRight);
  for (const auto state : {HostApplication::State::inactive, HostApplication::State::active})
    h.application.setState(state);
  h.time.run();
  EXPECT_THAT(takeScripts(), IsEmpty()) << "no page has loaded";
  for (int time = 0; time < 2; ++time) {
    page()->finishNavigation();
    EXPECT_THAT(takeScripts(),
                ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 400.0, 800.0);",
                            "mraidbridge.setScreenSize(1280.0, 1024.0);",
                            "mraidbridge.setMaxSize(400.0, 800.0);",
                            "window.mraidbridge.fireReadyEvent();"));
  }
  ad->showAdFrom(window->viewController());
  h.application.setScreenSize({1024, 1280});
  h.device.setOrientation(DeviceOrientation::landscapeLeft);
  h.time.advance(0.1);
  EXPECT_THAT(takeScripts(), ElementsAre("mraidbridge.fireChangeEvent({orientationDegree: 0});"))
      << "no property during the presentation";
  h.time.advance(0.4);
  EXPECT_THAT(takeScripts(),
              ElementsAre("mraidbridge.fireChangeEvent({supports: {sms: false, tel: false, "
                          "calendar: false, storePicture: false, inlineVideo: true}, state: "
                          "'default'});",
                          "mraidbridge.setDefaultPosition(0.0, 0.0, 400.0, 800.0);",
                          "mraidbridge.setScreenSize(1024.0, 1280.0);", kIsViewable));
  h.time.advance(5);
  EXPECT_THAT(takeScripts(), IsEmpty());

  window->setFrame({0, 0, 800, 400});
  h.application.setScreenSize({1280, 1024});
  h.time.advance(1);
  EXPECT_THAT(takeScripts(), ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 800.0, 400.0);",
                                         "mraidbridge.setDefaultPosition(0.0, 0.0, 800.0, 400.0);",
                                         "mraidbridge.setScreenSize(1280.0, 1024.0);",
                                         "mraidbridge.setMaxSize(800.0, 400.0);"));
  h.application.setScreenSize({-758.96, -1e308});
  h.device.setOrientation(DeviceOrientation::portrait);
  h.time.run();
  EXPECT_THAT(takeScripts(),
              ElementsAre(MatchesRegex("mraidbridge.setScreenSize.-759.0, -1[0-9]+.0.;"),
                          "mraidbridge.fireChangeEvent({orientationDegree: 0});"));
}

TEST_F(MRControllers, ReportTheAdAsViewableOnlyWhereTheUserSeesIt) {
  using State = HostApplication::State;
  show();
  const auto shown = adView();
  const auto place = [&](Rect frame) { window->view()->addSubview(shown, Layout::frame(frame)); };
  const Rect whole{0, 0, 400, 800}, outside{0, 800, 400, 800};
  const std::function<void(bool)> changes[] = {
      [&](bool isSeen) { h.application.setState(isSeen ? State::active : State::inactive); },
      [&](bool isSeen) { shown->setHidden(!isSeen); },
      [&](bool isSeen) { window->view()->setHidden(!isSeen); },
      [&](bool isSeen) { place(isSeen ? whole : outside); },
      [&](bool isSeen) { isSeen ? place(whole) : shown->removeFromSuperview(); },
  };
  for (std::size_t i = 0; i < std::size(changes); ++i) {
    for (const bool isSeen : {false, true}) {
      changes[i](isSeen);
      h.time.advance(i == 0 ? 0.2 : 1.1);  // notified of the state, polled for the rest
      EXPECT_THAT(takeScripts(), Contains(isSeen ? kIsViewable : kIsNotViewable)) << i;
    }
  }
  place({0, 799, 400, 800});
  h.time.advance(1.1);
  EXPECT_THAT(takeScripts(),
              ElementsAre("mraidbridge.setDefaultPosition(0.0, 799.0, 400.0, 800.0);"));
}

TEST_F(MRControllers, SendTheSafeAreaOrTheBannersPosition) {
  show({.shouldCareSafeArea = true});
  EXPECT_THAT(takeScripts(),
              testing::IsSupersetOf({"mraidbridge.setCurrentPosition(0.0, 20.0, 400.0, 746.0);",
                                     "mraidbridge.setMaxSize(400.0, 746.0);"}));
  EXPECT_EQ(adView()->frameInWindow(), (Rect{0, 20, 400, 746}));
  close();

  show({.adType = "banner"});
  takeScripts();
  const auto holder = h.application.makeView({});
  window->view()->addSubview(holder, Layout::frame({10, 20, 320, 50}));
  holder->addSubview(adView(), Layout::frame({1, 2, 300, 40}));
  h.time.advance(1.1);
  EXPECT_THAT(takeScripts(),
              ElementsAre("mraidbridge.setCurrentPosition(11.0, 22.0, 300.0, 40.0);",
                          "mraidbridge.setDefaultPosition(11.0, 22.0, 300.0, 40.0);"));
}

TEST_F(MRControllers, CarryOutCommandsAndBlockTheirNavigations) {
  const std::vector<std::pair<const char*, std::string>> refused = {
      {"mraid://close?a=b", "'close', 'Command not found!'"},
      {"mraid://Open?url=https://example.org", "'Open', 'Command not found!'"},
      {"mraid://open?URL=https://example.org", "'open', 'URL not found!'"},
      {"mraid://open?url=sms%3A112", "'open', 'Scheme not supported: sms'"},
      {"mraid://open?url=TEL%3A112", "'open', 'Scheme not supported: tel'"},
      {"mraid://open?url=file%3A%2F%2F%2Fetc%2Fpasswd", "'open', 'Scheme not supported: file'"},
      {"mraid://open?url=JavaScript%3A1", "'open', 'Scheme not supported: javascript'"},
      {"mraid://open?url=data%3Atext%2Fhtml%2C1", "'open', 'Scheme not supported: data'"},
      {"mraid://open?url=ssh%3A%2F%2F-oProxyCommand", "'open', 'Scheme not supported: ssh'"},
      {"mraid://open?url=kva%3A%2F%2FvideoComplete", "'open', 'Scheme not supported: kva'"},
      {"mraid://resize?width=1&height=2&offsetX=3", "'resize', 'Size parameters not found!'"},
      {"kva://close", "'close', 'Command not found!'"},
      {"kva://open?url=x", "'open', 'Command not found!'"},
  };
  show({.contentType = "video"});
  window->tap({200, 400});
  takeScripts();
  for (const auto& [url, error] : refused) {
    EXPECT_FALSE(page()->navigate(url)) << url;
    EXPECT_THAT(takeScripts(), ElementsAre("window.mraidbridge.fireErrorEvent(" + error + ");"))
        << url;
  }
  for (const char* url :
       {"mraid://open?url=http%3A%2F%2F%5B", "mraid://open?url=no%20address",
        "mraid://open?url=--help", "mraid://open?url=https%3A%2F%2Fexample.org%2Fa%3Fb%3Dc",
        "mraid://resize?width=&height=x&offsetX=-&offsetY=y", "ios-log://anything", "http://[",
        // Malformed commands.
        "mraid://close", "mraid://open?", "mraid://open?url", "mraid:open?url=https://example.org",
        "mraid://?url=x", "kva:close", "kva://close?", "kva://close?a&b=c"})
    EXPECT_FALSE(page()->navigate(url)) << url;
  EXPECT_THAT(takeScripts(), IsEmpty());
  EXPECT_TRUE(page()->navigate("https://example.org/page"));

  // Links that the bridge script does not handle, such as those in frames.
  using enum NavigationAction::TargetFrame;
  for (const auto target : {main, none, sub})
    page()->createWebView("https://example.org/blank", target);
  ASSERT_EQ(page()->loads().size(), 2u) << "the ad's and the subframe's";
  EXPECT_FALSE(page()->followLink("https://example.org/top"));
  for (const char* inside : {"https://example.org/top#place", "about:srcdoc"})
    EXPECT_TRUE(page()->followLink(inside)) << inside;
  EXPECT_TRUE(page()->followLink("https://example.org/blank", none)) << "followed by createWebView";
  EXPECT_THAT(h.application.openedURLs(),
              ElementsAre("https://example.org/a?b=c", "https://example.org/blank",
                          "https://example.org/top"));
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent", "didClick")) << "one click";
}

}  // namespace
}  // namespace kva
