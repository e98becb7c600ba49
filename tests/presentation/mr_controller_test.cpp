#include <presentation/AdStage.h>

namespace kva {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using MRControllers = AdStage;

const std::string kIsViewable = "mraidbridge.fireChangeEvent({viewable: true});";
const std::string kIsNotViewable = "mraidbridge.fireChangeEvent({viewable: false});";

TEST_F(MRControllers, TellThePageWhatHasChangedAndNothingElse) {
  loadPage();
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 400.0, 800.0);",
                                  "mraidbridge.setScreenSize(1280.0, 1024.0);",
                                  "mraidbridge.setMaxSize(400.0, 800.0);",
                                  "window.mraidbridge.fireReadyEvent();"));
  ad->showAdFrom(window->viewController());
  h.application.setScreenSize({1024, 1280});
  h.device.setOrientation(DeviceOrientation::landscapeLeft);
  h.time.advance(0.1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.fireChangeEvent({orientationDegree: 0});"))
      << "no property while it is being presented";
  h.time.advance(0.4);
  EXPECT_THAT(told(),
              ElementsAre("mraidbridge.fireChangeEvent({supports: {sms: false, tel: false, "
                          "calendar: false, storePicture: false, inlineVideo: true}, state: "
                          "'default'});",
                          "mraidbridge.setDefaultPosition(0.0, 0.0, 400.0, 800.0);",
                          "mraidbridge.setScreenSize(1024.0, 1280.0);", kIsViewable));
  h.time.advance(5);
  EXPECT_THAT(told(), IsEmpty());

  window->setFrame({0, 0, 800, 400});
  h.application.setScreenSize({1280, 1024});
  h.time.advance(1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(0.0, 0.0, 800.0, 400.0);",
                                  "mraidbridge.setDefaultPosition(0.0, 0.0, 800.0, 400.0);",
                                  "mraidbridge.setScreenSize(1280.0, 1024.0);",
                                  "mraidbridge.setMaxSize(800.0, 400.0);"));
  h.application.setScreenSize({1, 1});
  h.device.setOrientation(DeviceOrientation::portrait);
  h.time.run();
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setScreenSize(1.0, 1.0);",
                                  "mraidbridge.fireChangeEvent({orientationDegree: 0});"));
}

TEST_F(MRControllers, CallTheAdViewableOnlyWhereTheUserSeesIt) {
  show();
  const auto shown = adView();
  const auto place = [&](Rect frame) { window->view()->addSubview(shown, Layout::frame(frame)); };
  const Rect whole{0, 0, 400, 800};
  const auto changes = std::vector<std::pair<const char*, std::function<void(bool)>>>{
      {"the application is not active",
       [&](bool undo) {
         h.application.setState(undo ? HostApplication::State::active
                                     : HostApplication::State::inactive);
       }},
      {"it is hidden", [&](bool undo) { shown->setHidden(!undo); }},
      {"what it stands in is hidden", [&](bool undo) { window->view()->setHidden(!undo); }},
      {"it is out of the window",
       [&](bool undo) {
         place(undo ? whole : Rect{0, 800, 400, 800});
       }},
      {"it has no window", [&](bool undo) { undo ? place(whole) : shown->removeFromSuperview(); }},
  };
  for (const auto& [what, change] : changes) {
    change(false);
    h.time.advance(1.1);
    EXPECT_THAT(told(), Contains(kIsNotViewable)) << what;
    change(true);
    h.time.advance(1.1);
    EXPECT_THAT(told(), Contains(kIsViewable)) << what;
  }
  place({0, 799, 400, 800});
  h.time.advance(1.1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setDefaultPosition(0.0, 799.0, 400.0, 800.0);"));
}

TEST_F(MRControllers, RespectTheSafeAreaOrTheBannersPlace) {
  show({.shouldCareSafeArea = true});
  EXPECT_THAT(told(), testing::IsSupersetOf({"mraidbridge.setCurrentPosition(0.0, 20.0, 400.0, "
                                             "746.0);",
                                             "mraidbridge.setMaxSize(400.0, 746.0);"}));
  EXPECT_EQ(adView()->frameInWindow(), (Rect{0, 20, 400, 746}));
  close();

  loadPage({.adType = "banner"});
  EXPECT_THAT(told(), testing::Not(Contains(testing::HasSubstr("CurrentPosition"))));
  present();
  told();
  const auto holder = h.application.makeView({});
  const auto shown = adView();
  window->view()->addSubview(holder, Layout::frame({10, 20, 320, 50}));
  holder->addSubview(shown, Layout::frame({1, 2, 300, 40}));
  h.time.advance(1.1);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.setCurrentPosition(11.0, 22.0, 300.0, 40.0);",
                                  "mraidbridge.setDefaultPosition(11.0, 22.0, 300.0, 40.0);"));
}

TEST_F(MRControllers, CarryOutCommandsAndRefuseTheirNavigations) {
  const auto error = [](const std::string& command, const std::string& message) {
    return "window.mraidbridge.fireErrorEvent('" + command + "', '" + message + "');";
  };
  const std::string notFound = "Command not found!", noSize = "Size parameters not found!";
  const std::vector<std::pair<const char*, std::string>> commands = {
      {"mraid://close?a=b", error("close", notFound)},
      {"mraid://Open?url=https://example.org", error("Open", notFound)},
      {"mraid://open?URL=https://example.org", error("open", "URL not found!")},
      {"mraid://open?url=tel%3A112", error("open", "Scheme not supported: tel")},
      {"mraid://open?url=sms%3A112", error("open", "Scheme not supported: sms")},
      {"mraid://open?url=no%20address", ""},
      {"mraid://open?url=https%3A%2F%2Fexample.org%2Fa%3Fb%3Dc", ""},
      {"mraid://resize?width=1&height=2&offsetX=3", error("resize", noSize)},
      {"mraid://resize?width=&height=x&offsetX=-&offsetY=y", ""},
      {"kva://close", error("close", notFound)},
      {"kva://open?url=x", error("open", notFound)},
      {"kva://preloadcomplete", error("preloadcomplete", notFound)},
      // Nothing can be read out of these.
      {"no address", ""},
      {"ios-log://anything", ""},
      {"mraid://close", ""},
      {"mraid://open?", ""},
      {"mraid://open?url", ""},
      {"mraid:open?url=https://example.org", ""},
      {"mraid://?url=x", ""},
      {"kva:close", ""},
      {"kva://close?", ""},
      {"kva://close?a&b=c", ""},
  };
  show({.contentType = "video"});
  window->tap({200, 400});
  told();
  for (const auto& [url, script] : commands) {
    EXPECT_FALSE(page()->navigate(url)) << url;
    EXPECT_EQ(testing::PrintToString(told()),
              testing::PrintToString(std::vector<std::string>(!script.empty(), script)))
        << url;
  }
  EXPECT_THAT(h.application.openedURLs(), ElementsAre("https://example.org/a?b=c"));
  EXPECT_TRUE(page()->navigate("https://example.org/page"));
  EXPECT_TRUE(page()->navigate("about:blank"));
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "click"));
}

}  // namespace
}  // namespace kva
