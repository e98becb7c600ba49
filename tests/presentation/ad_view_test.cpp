#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre;

class AdViews : public AdStage {
 protected:
  /// The views that contain the page, up to the window's.
  std::vector<std::shared_ptr<View>> superviews() {
    std::vector<std::shared_ptr<View>> all;
    for (auto view = page()->superview(); view; view = view->superview()) all.push_back(view);
    return all;
  }
  /// The visible controls, in the order of this list.
  std::vector<std::string> seen() {
    h.time.run();
    std::vector<std::string> images;
    for (const char* image :
         {"icon.close", "icon.skip", "icon.soundonn", "icon.soundoff", "icon.adchoices"})
      if (sees(image)) images.push_back(image);
    return images;
  }
};

TEST_F(AdViews, PlaceTheControlsOverThePageInTheSafeArea) {
  loadPage({.contentType = "video"});
  EXPECT_THAT(host->events(), testing::IsEmpty()) << "a video is not ready yet";
  page()->navigate("kva://preloadComplete");
  ad->showAdFrom(window->viewController());
  EXPECT_THAT(seen(), ElementsAre("icon.skip")) << "during the presentation";
  h.time.advance(0.5);
  const std::tuple<const char*, const char*, Rect> controls[] = {
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

  for (const char* contentType : {"image", "video"}) {
    window->setFrame({0, 0, 50, 70});
    makeAd();
    show({.contentType = contentType});
    EXPECT_EQ(h.application.button("icon.close")->view()->frameInWindow(), (Rect{0, 10, 50, 60}));
    EXPECT_TRUE(sees("icon.adchoices"));
    page()->navigate("kva://videoComplete");
    h.time.run();
    close();  // reachable in a tiny window
  }
}

TEST_F(AdViews, NameTheControlsInTheUsersLanguage) {
  const std::pair<std::vector<std::string>, const char*> closeIn[] = {
      {{"de-AT", "en"}, "Schließen"}, {{"tr"}, "Kapat"}, {{"ar-EG"}, "إغلاق"},
      {{"den-CA", "tr"}, "Kapat"},    {{"ja"}, "Close"}, {{}, "Close"},
  };
  for (const auto& [languages, name] : closeIn) {
    h.locale.set({.preferredLanguages = languages});
    makeAd();
    show();
    EXPECT_EQ(h.application.button("icon.close")->accessibleName(), name);
    close();
  }
}

TEST_F(AdViews, OfAVideoShowSkipUntilItIsOverAndThenClose) {
  for (const bool isSkipped : {false, true}) {
    SCOPED_TRACE(isSkipped);
    makeAd(KVABidType::rewarded);
    show({.contentType = "video", .arcDuration = 5});
    EXPECT_THAT(seen(), ElementsAre("icon.soundonn", "icon.adchoices"));
    if (isSkipped) {
      h.time.advance(5);
      EXPECT_THAT(seen(), ElementsAre("icon.skip", "icon.soundonn", "icon.adchoices"));
      takeScripts();
      window->pressEscape();
      EXPECT_THAT(takeScripts(),
                  ElementsAre("window.mraidbridge.fireChangeEvent({skipTapped: true});"));
    } else {
      page()->navigate("kva://videoComplete");
    }
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
    window->pressEscape();
    h.time.advance(10);
    expectNothingLeft();
    EXPECT_EQ(host->events().back(), "didDismiss") << "no reward after the close";
  }

  loadPage({.contentType = "video", .arcDuration = 2});
  page()->navigate("kva://preloadComplete");
  page()->navigate("kva://videoComplete");
  present();
  for (const double seconds : {0, 5}) {
    h.time.advance(seconds);
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices")) << "over before it is shown";
  }
}

TEST_F(AdViews, ReportSoundAndPrivacyAndCountOnlyAPressOnThePageAsATap) {
  show({.contentType = "video"});
  takeScripts();
  const auto sound = h.application.button("icon.soundonn");
  EXPECT_TRUE(window->activate(sound)) << "by a key";
  h.time.run();
  EXPECT_EQ(h.application.button("icon.soundoff")->accessibleName(), "Unmute");
  EXPECT_TRUE(tap("icon.soundoff"));
  EXPECT_THAT(seen(), testing::Contains("icon.soundonn"));
  EXPECT_TRUE(tap("icon.adchoices"));
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  EXPECT_THAT(h.application.openedURLs(), ElementsAre("https://example.org/privacy"));
  EXPECT_THAT(takeScripts(), ElementsAre("mraidbridge.fireChangeEvent({videoMuted: true});",
                                         "mraidbridge.fireChangeEvent({videoMuted: false});"));
  EXPECT_TRUE(tap("icon.skip"));
  EXPECT_TRUE(window->activate(sound));
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices")) << "no sound after the video";
}

TEST_F(AdViews, RunThePageUnseenInItsFinalPlaceAndNeverMoveIt) {
  for (const bool isSafe : {false, true}) {
    loadPage({.shouldCareSafeArea = isSafe});
    window->setFrame({0, 0, 500, 700});
    const auto place = page()->frameInWindow();
    EXPECT_FALSE(page()->isShown() || page()->window() || window->tap(page()));
    const auto places = superviews();
    EXPECT_EQ(places.back(), window->view());
    EXPECT_TRUE(page()->isMuted());
    present();
    EXPECT_EQ(page()->frameInWindow(), place) << "the same as before";
    EXPECT_EQ(superviews(), places);
    EXPECT_TRUE(page()->isShown());
    EXPECT_FALSE(page()->isMuted());
    close();
    window->setFrame({0, 0, 400, 800});
  }

  loadPage();
  const auto& configuration = page()->configuration();
  EXPECT_THAT(configuration.userScript, testing::HasSubstr("mraidbridge"));
  EXPECT_TRUE(configuration.allowsInlineMediaPlayback);
  EXPECT_FALSE(configuration.requiresUserActionForMediaPlayback || configuration.isOpaque ||
               configuration.bounces || configuration.allowsZooming);
  const auto answer = page()->dialog({ScriptDialog::Kind::prompt, "Question", "default"});
  EXPECT_FALSE(answer.confirmed || answer.text);
  const auto first = window;
  window = h.application.makeWindow();
  present();
  EXPECT_TRUE(page()->isShown()) << "in another window than that of standby";
  EXPECT_EQ(superviews().back(), window->view());
  close();

  window = first;
  for (const bool isReleased : {false, true}) {
    loadPage();
    if (isReleased) makeAd();
  }
  ad.reset();
  h.time.run();
  expectNothingLeft();

  h.application.setKeyWindow(nullptr);
  makeAd();
  loadPage();
  EXPECT_FALSE(page()->frameInWindow());
  window = h.application.makeWindow();
  present();
  EXPECT_TRUE(page()->isShown());
}

}  // namespace
}  // namespace kva
