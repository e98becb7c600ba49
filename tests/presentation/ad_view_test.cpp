#include <Kelvara/core/Log.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using headless::HeadlessView;
using testing::ElementsAre;

class AdViews : public AdStage {
 protected:
  /// The controls that the user sees, in the order of this list.
  std::vector<std::string> seen() {
    h.time.run();
    std::vector<std::string> images;
    for (const char* image :
         {"icon.close", "icon.skip", "icon.soundonn", "icon.soundoff", "icon.adchoices"})
      if (sees(image)) images.push_back(image);
    return images;
  }
};

TEST_F(AdViews, HaveTheirControlsOverThePageInTheSafeArea) {
  loadPage({.contentType = "video"});
  EXPECT_THAT(host->heard, testing::IsEmpty()) << "a video is ready when it says so";
  page()->navigate("kva://preloadComplete");
  ad->showAdFrom(window->viewController());
  EXPECT_THAT(seen(), ElementsAre("icon.skip")) << "while it is being presented";
  h.time.advance(0.5);
  struct Control {
    const char *image, *name;
    Rect place;
  };
  const std::vector<Control> controls = {
      {"icon.close", "Close", {340, 20, 60, 60}},
      {"icon.skip", "Skip", {340, 20, 60, 60}},
      {"icon.soundonn", "Mute", {0, 20, 60, 60}},
      {"icon.adchoices", "Privacy", {340, 706, 60, 60}},
  };
  for (const auto& [image, name, place] : controls) {
    const auto button = h.application.button(image);
    EXPECT_EQ(button->view()->frameInWindow(), place) << image;
    EXPECT_EQ(button->accessibleName(), name);
    EXPECT_EQ(button->insets(), (EdgeInsets{10, 10, 10, 10}));
    EXPECT_TRUE(std::filesystem::exists(button->image().bundle / (std::string(image) + ".png")));
  }
  EXPECT_EQ(h.application.button("icon.adchoices")->alpha(), 0.8);
  EXPECT_EQ(page()->frameInWindow(), (Rect{0, 0, 400, 800})) << "the page ignores the safe area";
}

TEST_F(AdViews, OfAnImageShowCloseWhenItsTimeHasCome) {
  show({.arcDuration = 3});
  h.time.advance(2);
  EXPECT_THAT(seen(), ElementsAre("icon.adchoices"));
  window->pressEscape();
  EXPECT_FALSE(tap("icon.close"));
  h.time.advance(1);
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
  window->pressEscape();
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "dismiss")) << "and no reward";

  show({.arcDuration = -5});
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices")) << "this would never end";
}

TEST_F(AdViews, KeepCloseInReachInATinyWindow) {
  for (const char* contentType : {"image", "video"}) {
    window->setFrame({0, 0, 50, 70});
    makeAd();
    show({.contentType = contentType});
    EXPECT_EQ(h.application.button("icon.close")->view()->frameInWindow(), (Rect{0, 10, 50, 60}));
    EXPECT_TRUE(sees("icon.adchoices"));
    page()->navigate("kva://videoComplete");
    h.time.run();
    close();
  }
}

TEST_F(AdViews, OfAVideoShowSkipUntilItIsOverAndThenClose) {
  for (const bool isSkipped : {false, true}) {
    SCOPED_TRACE(isSkipped);
    makeAd(AdType::rewarded);
    show({.contentType = "video", .arcDuration = 5});
    EXPECT_THAT(seen(), ElementsAre("icon.soundonn", "icon.adchoices"));
    if (isSkipped) {
      h.time.advance(5);
      EXPECT_THAT(seen(), ElementsAre("icon.skip", "icon.soundonn", "icon.adchoices"));
      told();
      window->pressEscape();
      EXPECT_THAT(told(), ElementsAre("window.mraidbridge.fireChangeEvent({skipTapped: true});"));
    } else {
      page()->navigate("kva://videoComplete");
    }
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
    window->pressEscape();
    h.time.advance(0.5);
    expectNothingLeft();
    h.time.advance(10);
    EXPECT_EQ(host->heard.back(), "dismiss") << "no reward once it is closed";
  }

  loadPage({.contentType = "video", .arcDuration = 2});
  page()->navigate("kva://preloadComplete");
  page()->navigate("kva://videoComplete");
  present();
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices")) << "over before it is shown";
  h.time.advance(5);
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices")) << "the countdown came later";
}

TEST_F(AdViews, ReportSoundAndPrivacyAndCountOnlyAPressOnThePageAsATap) {
  Log::shared().setLogLevel(LogLevel::d);
  show({.contentType = "video"});
  told();
  EXPECT_TRUE(window->activate(h.application.button("icon.soundonn"))) << "by a key";
  h.time.run();
  EXPECT_EQ(h.application.button("icon.soundoff")->accessibleName(), "Unmute");
  EXPECT_TRUE(tap("icon.soundoff"));
  EXPECT_THAT(seen(), testing::Contains("icon.soundonn"));
  EXPECT_TRUE(tap("icon.adchoices"));
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  EXPECT_THAT(h.application.openedURLs(), ElementsAre("https://example.org/privacy"));
  EXPECT_EQ(h.output.count("<KVA> [D]: AdView tapped."), 0);
  EXPECT_THAT(told(), ElementsAre("mraidbridge.fireChangeEvent({videoMuted: true});",
                                  "mraidbridge.fireChangeEvent({videoMuted: false});"));
  // Its last press brings nothing back once the video is over.
  const auto sound = h.application.button("icon.soundonn");
  EXPECT_TRUE(tap("icon.skip"));
  EXPECT_TRUE(window->activate(sound));
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
  EXPECT_FALSE(h.application.button("icon.soundoff"));
}

TEST_F(AdViews, HavePagesThatRunUnseenAtFullSizeAndAreMovedInOnce) {
  for (const bool isSafe : {false, true}) {
    loadPage({.shouldCareSafeArea = isSafe});
    window->setFrame({0, 0, 500, 700});
    const auto place = page()->frameInWindow();
    EXPECT_FALSE(page()->isShown() || window->tap(page()));
    EXPECT_TRUE(page()->isMuted());
    present();
    EXPECT_EQ(page()->frameInWindow(), place) << "showing it changes nothing";
    EXPECT_TRUE(page()->isShown());
    EXPECT_FALSE(page()->isMuted());
    close();
    window->setFrame({0, 0, 400, 800});
  }

  loadPage();
  const auto holder = std::dynamic_pointer_cast<HeadlessView>(page()->superview());
  EXPECT_EQ(holder->superview(), window->view());
  const auto& configuration = page()->configuration();
  EXPECT_THAT(configuration.userScript, testing::HasSubstr("mraidbridge"));
  EXPECT_TRUE(configuration.allowsInlineMediaPlayback);
  EXPECT_FALSE(configuration.requiresUserActionForMediaPlayback || configuration.isOpaque ||
               configuration.bounces || configuration.allowsZooming);
  present();
  EXPECT_EQ(page()->frameInWindow(), (Rect{0, 0, 400, 800}));
  const auto shown = adView();
  holder->addSubview(page(), Layout::frame({}));
  h.application.makeWindow()->view()->addSubview(shown, Layout::frame({}));
  EXPECT_EQ(page()->superview(), holder) << "moved once";

  h.application.setKeyWindow(nullptr);
  makeAd();
  loadPage();
  EXPECT_FALSE(page()->superview()->superview()) << "a holder in no window";
  window = h.application.makeWindow();
  present();
  EXPECT_TRUE(page()->isShown());
}

TEST_F(AdViews, HavePagesThatAskTheUserNothing) {
  loadPage();
  for (const auto kind :
       {ScriptDialog::Kind::alert, ScriptDialog::Kind::confirm, ScriptDialog::Kind::prompt}) {
    const auto answer = page()->dialog({kind, "Question", "default"});
    EXPECT_FALSE(answer.confirmed || answer.text);
  }
  using Target = NavigationAction::TargetFrame;
  page()->createWebView("https://example.org/none", Target::none);
  page()->createWebView("https://example.org/main", Target::main);
  EXPECT_EQ(page()->loads().size(), 1u) << "the ad's own";
  page()->createWebView("https://example.org/sub", Target::sub);
  ASSERT_EQ(page()->loads().size(), 2u);
  EXPECT_EQ(page()->loads()[1].request->url.absoluteString(), "https://example.org/sub");
}

}  // namespace
}  // namespace kva
