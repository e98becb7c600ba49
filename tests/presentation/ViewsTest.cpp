#include <Kelvara/core/Log.h>
#include <Kelvara/presentation/AdView.h>
#include <Kelvara/presentation/KVAWebView.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using headless::HeadlessView;
using testing::ElementsAre;
using testing::IsEmpty;

struct Controller : AdViewDelegate, KVAWebViewDelegate {
  void adViewDidTapClose(AdView&) override { heard.push_back("close"); }
  void adViewDidTapSkip(AdView&) override { heard.push_back("skip"); }
  void adViewDidMoveToWindow(AdView&) override { heard.push_back("window"); }
  void adViewDidTapPrivacy(AdView&) override { heard.push_back("privacy"); }
  void adViewDidTapSoundMute(AdView&, bool isMuted) override {
    heard.push_back(isMuted ? "muted" : "unmuted");
  }
  void webViewDidFinishLoad(KVAWebView&) override { heard.push_back("finish"); }
  void webViewDidFailToLoad(KVAWebView&, const Error& error) override {
    heard.push_back(error.localizedDescription());
  }
  bool webViewShouldAllowNavigation(KVAWebView&,
                                    const std::optional<URLRequest>& request) override {
    return request && request->url.scheme() == "https";
  }
  std::vector<std::string> heard;
};

class Views : public Stage {
 protected:
  void make(Creative::ContentType contentType) {
    adView = AdView::create({0, 0, 1, 1}, contentType);
    adView->setDelegate(controller);
    adView->setWebView(KVAWebView::create({0, 0, 1, 1}));
  }
  void place() {
    window->view()->addSubview(adView->view(), Layout::edges(Layout::Area::plain));
    h.time.run();
  }
  /// The controls that the user sees, in the order of this list.
  std::vector<std::string> seen() {
    h.time.run();
    std::vector<std::string> images;
    for (const char* image :
         {"icon.close", "icon.skip", "icon.soundonn", "icon.soundoff", "icon.adchoices"})
      if (sees(image)) images.push_back(image);
    return images;
  }
  Rect place(std::string_view image) {
    return h.application.button(image)->view()->frameInWindow().value();
  }

  std::shared_ptr<Controller> controller = std::make_shared<Controller>();
  std::shared_ptr<AdView> adView;
};

TEST_F(Views, ControlsStandOverThePageInTheSafeArea) {
  make(Creative::ContentType::video);
  place();
  adView->adviewDidPresent();
  EXPECT_EQ(place("icon.close"), (Rect{340, 20, 60, 60}));
  EXPECT_EQ(place("icon.skip"), (Rect{340, 20, 60, 60}));
  EXPECT_EQ(place("icon.soundonn"), (Rect{0, 20, 60, 60}));
  EXPECT_EQ(place("icon.adchoices"), (Rect{340, 706, 60, 60}));
  EXPECT_EQ(h.application.button("icon.adchoices")->alpha(), 0.8);
  EXPECT_EQ(page()->frameInWindow(), (Rect{0, 0, 400, 800})) << "the page ignores the safe area";

  const std::vector<std::pair<const char*, const char*>> names = {{"icon.close", "Close"},
                                                                  {"icon.skip", "Skip"},
                                                                  {"icon.soundonn", "Mute"},
                                                                  {"icon.adchoices", "Privacy"}};
  for (const auto& [image, name] : names) {
    const auto button = h.application.button(image);
    EXPECT_EQ(button->accessibleName(), name);
    EXPECT_EQ(button->insets(), (EdgeInsets{10, 10, 10, 10}));
    EXPECT_TRUE(std::filesystem::exists(button->image().bundle / (std::string(image) + ".png")));
  }
}

TEST_F(Views, ImageShowsCloseWhenItsTimeHasCome) {
  make(Creative::ContentType::image);
  place();
  EXPECT_THAT(seen(), ElementsAre("icon.close"));
  adView->setCloseButtonHidden(true);
  EXPECT_TRUE(sees("icon.close")) << "not before the next turn of the main queue";
  EXPECT_THAT(seen(), IsEmpty());
  adView->adviewDidPresent();
  EXPECT_THAT(seen(), ElementsAre("icon.adchoices"));
  adView->cancel();
  EXPECT_THAT(controller->heard, ElementsAre("window"));
  adView->setCloseButtonHidden(false);
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
  adView->videoCompleted();
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
  adView->cancel();
  EXPECT_THAT(controller->heard, ElementsAre("window", "close"));
}

TEST_F(Views, VideoShowsSkipUntilItIsOverAndThenClose) {
  for (const bool isSkipped : {false, true}) {
    SCOPED_TRACE(isSkipped);
    controller->heard.clear();
    make(Creative::ContentType::video);
    place();
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.skip"));
    adView->setCloseButtonHidden(true);
    EXPECT_THAT(seen(), IsEmpty());
    adView->adviewDidPresent();
    EXPECT_THAT(seen(), ElementsAre("icon.soundonn", "icon.adchoices"));
    if (isSkipped) {
      adView->setCloseButtonHidden(false);
      EXPECT_THAT(seen(), ElementsAre("icon.skip", "icon.soundonn", "icon.adchoices"));
      adView->cancel();
      EXPECT_EQ(controller->heard.back(), "skip");
    } else {
      adView->videoCompleted();
    }
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
    // A countdown that outlasts the video takes nothing back.
    adView->setCloseButtonHidden(false);
    adView->adviewDidPresent();
    EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
    adView->cancel();
    EXPECT_EQ(controller->heard.back(), "close");
    adView.reset();
  }
}

TEST_F(Views, VideoThatIsOverBeforeItIsOnScreenKeepsItsCloseButton) {
  make(Creative::ContentType::video);
  adView->setCloseButtonHidden(true);
  adView->videoCompleted();
  place();
  adView->adviewDidPresent();
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
}

TEST_F(Views, SoundTogglesAndEveryPressIsATap) {
  Log::shared().setLogLevel(LogLevel::d);
  make(Creative::ContentType::video);
  place();
  adView->adviewDidPresent();
  EXPECT_FALSE(adView->wasTapped());
  EXPECT_TRUE(window->activate(h.application.button("icon.soundonn"))) << "by a key";
  EXPECT_TRUE(adView->wasTapped());
  EXPECT_EQ(h.output.count("<KVA> [D]: AdView tapped."), 1);
  EXPECT_THAT(seen(), testing::Contains("icon.soundoff"));
  EXPECT_EQ(h.application.button("icon.soundoff")->accessibleName(), "Unmute");
  EXPECT_TRUE(tap("icon.soundoff"));
  EXPECT_THAT(seen(), testing::Contains("icon.soundonn"));
  EXPECT_TRUE(tap("icon.adchoices"));
  // Its last press changes nothing any more once the video is over.
  const auto sound = h.application.button("icon.soundonn");
  EXPECT_TRUE(tap("icon.skip"));
  EXPECT_TRUE(window->activate(sound));
  EXPECT_THAT(seen(), ElementsAre("icon.close", "icon.adchoices"));
  EXPECT_THAT(controller->heard,
              ElementsAre("window", "muted", "unmuted", "privacy", "skip", "muted"));
}

TEST_F(Views, PageRunsUnseenUntilItIsMovedInOnce) {
  auto webView = KVAWebView::create({5, 6, 70, 80});
  webView->setDelegate(controller);
  const auto holder = std::dynamic_pointer_cast<HeadlessView>(page()->superview());
  EXPECT_EQ(holder->superview(), window->view());
  EXPECT_EQ(holder->frame(), Rect());
  EXPECT_TRUE(holder->clipsToBounds());
  EXPECT_EQ(page()->frame(), (Rect{0, 0, 70, 80}));
  const auto& configuration = page()->configuration();
  EXPECT_THAT(configuration.userScript, testing::HasSubstr("mraidbridge"));
  EXPECT_TRUE(configuration.allowsInlineMediaPlayback);
  EXPECT_FALSE(configuration.requiresUserActionForMediaPlayback || configuration.isOpaque ||
               configuration.bounces || configuration.allowsZooming);

  window->view()->addSubview(webView->view(), Layout::frame({5, 6, 70, 80}));
  EXPECT_EQ(page()->superview(), webView->view());
  EXPECT_EQ(page()->frameInWindow(), (Rect{5, 6, 70, 80}));
  holder->addSubview(page(), Layout::frame({}));
  const auto other = h.application.makeWindow();
  other->view()->addSubview(webView->view(), Layout::frame({}));
  EXPECT_EQ(page()->superview(), holder) << "moves once";
  const auto kept = page();
  webView.reset();
  EXPECT_FALSE(kept->superview() || holder->superview());
}

TEST_F(Views, PageHasNoHolderInAWindowThatIsNotThere) {
  window->destroy();
  h.application.setKeyWindow(nullptr);
  auto webView = KVAWebView::create({0, 0, 1, 1});
  EXPECT_FALSE(page()->superview()->superview());
  auto late = h.application.makeWindow();
  late->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  EXPECT_EQ(page()->superview(), webView->view());
}

TEST_F(Views, PageAsksItsDelegateAndNeverTheUser) {
  const auto webView = KVAWebView::create({0, 0, 1, 1});
  EXPECT_TRUE(page()->navigate("http://example.org")) << "nobody forbids it";
  webView->setDelegate(controller);
  EXPECT_FALSE(page()->navigate("http://example.org"));
  EXPECT_TRUE(page()->navigate("https://example.org"));
  page()->finishNavigation();
  page()->failNavigation(Error("KVAURLErrorDomain", 1004, "Could not connect."));
  EXPECT_THAT(controller->heard, ElementsAre("finish", "Could not connect."));

  for (const auto kind :
       {ScriptDialog::Kind::alert, ScriptDialog::Kind::confirm, ScriptDialog::Kind::prompt}) {
    const auto answer = page()->dialog({kind, "Question", "default"});
    EXPECT_FALSE(answer.confirmed || answer.text);
  }

  using Target = NavigationAction::TargetFrame;
  page()->createWebView("https://example.org/none", Target::none);
  page()->createWebView("https://example.org/main", Target::main);
  EXPECT_THAT(page()->loads(), IsEmpty());
  page()->createWebView("https://example.org/sub", Target::sub);
  ASSERT_EQ(page()->loads().size(), 1u);
  EXPECT_EQ(page()->loads()[0].request->url.absoluteString(), "https://example.org/sub");

  page()->answerScripts([](const std::string& script) { return script + " done"; });
  std::string result;
  webView->evaluateJavaScript("1+1", [&](Result<std::string> value) { result = value.value(); });
  EXPECT_TRUE(webView->executeJavascript("2+2"));
  h.time.run();
  EXPECT_EQ(result, "1+1 done");
}

}  // namespace
}  // namespace kva
