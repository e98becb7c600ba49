#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using FullscreenAds = AdStage;

const Error noPage("KVAURLErrorDomain", 1004, "Could not connect.");

TEST_F(FullscreenAds, TellTheHostFirstAndLeaveNothingBehind) {
  loadPage();
  EXPECT_EQ(page()->html(), "<html>A title</html>");
  told();
  const char* counters = SDKHelper::UserDefaultKeys::frequencyCappingMembers;
  host->onEvent = [&] {
    EXPECT_FALSE(h.defaults.get<Bytes>(counters)) << "counted too early";
    EXPECT_THAT(told(), IsEmpty()) << "the host comes before the page";
  };
  ad->showAdFrom(window->viewController());
  EXPECT_FALSE(ad->isLoaded());
  h.time.advance(0.5);
  host->onEvent = nullptr;
  EXPECT_THAT(asText(h.defaults.get<Bytes>(counters).value()), testing::HasSubstr(kPlanId));

  // A page opens nothing by itself; from the first tap on it may, and the click counts once.
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  EXPECT_THAT(h.application.openedURLs(), IsEmpty());
  EXPECT_TRUE(window->tap({200, 400}));
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fb");
  EXPECT_THAT(h.application.openedURLs(),
              ElementsAre("https://example.org/a", "https://example.org/b"));
  close();
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "click", "dismiss"));
  expectNothingLeft();
  present();
  EXPECT_EQ(host->heard.back(), "no present 0 Ad isn't ready.");
  const auto reports = uploadedReports();
  EXPECT_TRUE(reports[0]["imp"] && reports[0]["clck"] && reports[0]["dism"]) << reports;
}

TEST_F(FullscreenAds, EarnTheRewardAfterTheCountdownAndFollowTheVideo) {
  makeAd(AdType::rewarded);
  show({.contentType = "video", .arcDuration = 40, .adType = "rewarded"});
  EXPECT_TRUE(uploadedReports()[0]["comp"]);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete"));

  // The quarter that the server hears of; 0 when there is no news for it.
  const std::vector<std::pair<const char*, int>> progress = {
      {"", 0},
      {"?duration=40&currenttime=41", 0},
      {"?duration=abc&currenttime=5.5", 0},
      {"?duration=40&currenttime=10,5", 0},
      {"?duration=4e1&currenttime=25.0", 1},  // one for each event: the next catches up
      {"?duration=40&currenttime=20", 2},
      {"?duration=40&currenttime=29.9", 0},
      {"?duration=40&currenttime=30", 3},
      {"?duration=40&currenttime=40", 4},
      {"?duration=inf&currenttime=inf", 0},  // there is no fifth
      {"?duration=-4&currenttime=-4", 0},
  };
  for (const auto& [query, quarter] : progress) {
    page()->navigate(std::string("kva://videoEvent") + query);
    const auto reports = uploadedReports();
    EXPECT_EQ(reports.is_null() ? 0 : reports[0]["quar"].get<int>(), quarter) << query;
  }
  page()->navigate("kva://videoComplete");
  EXPECT_EQ(uploadedReports()[0]["quar"], 4);
}

TEST_F(FullscreenAds, TellTheHostOnceWhyTheyDoNotLoad) {
  struct Case {
    std::function<void()> prepare;
    const char* heard;
    bool isLoadingAfterwards;
  };
  const std::vector<Case> cases = {
      {[&] { h.server.reply("/template", headless::errorEnvelope(1, "None.")); },
       "no receive 11 No templete found.", false},
      {[&] { serveTemplate(""); }, "no receive 12 HTML data isn't valid.", false},
      {[&] {
         h.time.after(0.05, [&] {
           page()->failNavigation(noPage);
           page()->failNavigation(noPage);
           page()->finishNavigation();
         });
       },
       "no receive 1004 Could not connect.", false},
      {[&] {
         h.mainBundle.setPath("/nonexistent");
         launch();
       },
       "no receive 10 No MRAID.js file.", false},
      {[&] { h.reachability.setFlags(0); }, "no receive 4 No internet connection.", true},
  };
  for (const auto& test : cases) {
    serveAd({});
    serveTemplate("<html></html>");
    test.prepare();
    h.time.run();
    makeAd();
    load();
    EXPECT_THAT(host->heard, ElementsAre(test.heard));
    EXPECT_EQ(ad->isLoading(), test.isLoadingAfterwards) << test.heard;
    EXPECT_FALSE(ad->isLoaded());
  }
}

TEST_F(FullscreenAds, FailAfterAMinuteWithoutAPageAndKeepNothingOfIt) {
  for (const std::string contentType : {"image", "video"}) {
    makeAd();
    serveAd({.contentType = contentType});
    load();
    if (contentType == "video") page()->finishNavigation();  // and never says that it is ready
    h.time.advance(59);
    EXPECT_THAT(host->heard, IsEmpty());
    h.time.advance(1);
    EXPECT_THAT(host->heard, ElementsAre("no receive 1001 The page has not loaded in time."));
    EXPECT_EQ(h.application.liveWebViews(), 0);
  }
  loadPage();
  h.time.advance(120);
  present();
  EXPECT_EQ(host->heard.back(), "present");
}

TEST_F(FullscreenAds, AreNotShownWithoutANetworkNorAPageNorTwice) {
  std::vector<std::string> outcomes;
  const auto controller = FullscreenAdVC::create(Ad::decode(adJson({})).value());
  for (int i = 0; i < 2; ++i) {
    controller->show(*window->viewController(), [&](const Result<bool>& shown) {
      outcomes.push_back(shown ? "shown" : shown.error().localizedDescription());
    });
    h.time.advance(0.5);
  }
  EXPECT_THAT(outcomes, ElementsAre("shown", "Ad is already shown."));
  uploadedReports();

  loadPage();
  h.reachability.setFlags(0);
  h.time.run();
  present();
  EXPECT_THAT(host->heard, ElementsAre("receive", "no present 13 No internet connection."));
  EXPECT_TRUE(uploadedReports().is_null());

  h.reachability.setFlags(headless::HeadlessReachability::kReachable);
  h.time.run();
  makeAd();
  loadPage();
  page()->terminateProcess();
  present();
  EXPECT_THAT(host->heard, ElementsAre("receive", "no present 0 Ad isn't ready."));
  EXPECT_TRUE(uploadedReports().is_null());
  makeAd();
  show();
  page()->terminateProcess();
  close();
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "dismiss"));
}

TEST_F(FullscreenAds, BecomeReadyOnceWhateverThePageSends) {
  serveAd({.contentType = "video"});
  load();
  EXPECT_TRUE(ad->isLoading());
  // Everything that counts on an ad view, before there is one.
  for (const char* command :
       {"kva://preloadComplete", "kva://videoComplete", "kva://preloadComplete",
        "mraid://open?url=https://example.org", "mraid://resize?width=1"})
    EXPECT_FALSE(page()->navigate(command));
  EXPECT_THAT(host->heard, IsEmpty());
  page()->finishNavigation();
  EXPECT_THAT(host->heard, ElementsAre("receive"));
  page()->navigate("kva://preloadComplete");
  page()->finishNavigation();
  page()->failNavigation(noPage);
  EXPECT_THAT(host->heard, ElementsAre("receive"));
  present();
  EXPECT_EQ(page()->frameInWindow(), (Rect{0, 0, 400, 800}));
}

TEST_F(FullscreenAds, HaveAnOutcomeForEachOfTwoLoadsAtOnce) {
  h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.2);
  load();
  load();
  h.time.advance(0.5);
  page()->finishNavigation();
  EXPECT_THAT(host->heard, ElementsAre("no receive 1 Ad data isn't available.", "receive"));
}

TEST_F(FullscreenAds, SurviveTheDismissalOfTheOneTheyWereLoadedUnder) {
  // When the ad on screen is closed: its page is there and the next ad's is not yet, or both are.
  for (const bool isNextReady : {false, true}) {
    SCOPED_TRACE(isNextReady);
    makeAd();
    show();
    h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.6);
    ad->loadAd(bid(), 1.5);
    if (isNextReady) {
      h.time.advance(1);
      page()->finishNavigation();
      EXPECT_TRUE(ad->isLoaded());
    }
    window->pressEscape();
    h.time.advance(0.5);
    if (!isNextReady) {
      EXPECT_TRUE(ad->isLoading());
      h.time.advance(1);
      page()->finishNavigation();
    }
    ASSERT_TRUE(ad->isLoaded());
    present();
    close();
    auto order = std::vector<std::string>{"receive", "present", "dismiss", "receive"};
    if (isNextReady) std::swap(order[2], order[3]);
    order.insert(order.end(), {"present", "dismiss"});
    EXPECT_EQ(host->heard, order);
    expectNothingLeft();
  }
}

TEST_F(FullscreenAds, CountAnImpressionForTheirPlanAlthoughAnotherLoadHasBegun) {
  loadPage();
  ad->showAdFrom(window->viewController());
  ad->loadAd(nullptr, 1.5);
  h.time.advance(0.5);
  const auto counted = h.defaults.get<Bytes>(SDKHelper::UserDefaultKeys::frequencyCappingMembers);
  ASSERT_TRUE(counted);
  EXPECT_THAT(asText(*counted), testing::HasSubstr(kPlanId));
  EXPECT_THAT(host->heard,
              ElementsAre("receive", "no receive 7 Bid response isn't valid.", "present"));
  EXPECT_TRUE(ad->isLoading());
}

TEST_F(FullscreenAds, GoWithTheirWindowAtAnyMoment) {
  struct Case {
    const char* when;
    double secondsAfterShow;
    std::vector<std::string> heard;
  };
  const std::string noWindow = "no present 13 No window.";
  const std::vector<Case> cases = {
      {"before", -1, {"receive", noWindow}},
      {"hidden", 3, {"receive", noWindow}},
      {"presenting", 0.1, {"receive", noWindow}},
      {"shown", 3, {"receive", "present", "dismiss"}},
      {"closing", 3, {"receive", "present", "dismiss"}},
  };
  for (const auto& [when, secondsAfterShow, heard] : cases) {
    SCOPED_TRACE(when);
    makeAd();
    loadPage();
    if (secondsAfterShow < 0) window->destroy();
    if (when == std::string("hidden")) window->setOnScreen(false);
    ad->showAdFrom(window->viewController());
    h.time.advance(std::max(0.0, secondsAfterShow));
    if (when == std::string("closing")) tap("icon.close");
    h.time.advance(0.1);
    window->destroy();
    h.time.advance(3);
    EXPECT_EQ(host->heard, heard);
    EXPECT_EQ(h.application.liveWebViews() + h.application.liveButtons(), 0);
    const bool wasShown = heard[1] == "present";
    const auto reports = uploadedReports();
    EXPECT_EQ(reports.is_null(), !wasShown) << reports;
    if (wasShown) {
      EXPECT_TRUE(reports[0]["dism"] && reports[0]["imp"]);
    }
    window = h.application.makeWindow();
  }
}

TEST_F(FullscreenAds, WaitForTheirWindowToBeOnScreenAndCountDownOnlyWhileItIs) {
  makeAd(AdType::rewarded);
  loadPage({.arcDuration = 5, .adType = "rewarded"});
  window->setOnScreen(false);
  present();
  window->setOnScreen(true);
  h.time.advance(0.1);
  window->setOnScreen(false);  // while the ad appears
  h.time.advance(100);
  EXPECT_THAT(host->heard, ElementsAre("receive"));
  EXPECT_TRUE(uploadedReports().is_null());

  window->setOnScreen(true);
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present"));
  h.time.advance(3);
  told();
  window->setOnScreen(false);
  h.time.advance(100);
  EXPECT_THAT(told(), testing::Contains(testing::HasSubstr("viewable: false")));
  EXPECT_FALSE(sees("icon.close"));
  window->setOnScreen(true);
  h.time.advance(1);
  EXPECT_FALSE(sees("icon.close"));
  h.time.advance(2);
  EXPECT_TRUE(sees("icon.close"));
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete"));
  close();
}

TEST_F(FullscreenAds, MayBeLetGoWhileTheyLoadAndWhileTheyAreShown) {
  host.reset();
  show();
  ad.reset();
  h.time.advance(3);
  close();
  expectNothingLeft();
  EXPECT_TRUE(uploadedReports()[0]["dism"]);

  makeAd();
  h.server.reply("/template", headless::errorEnvelope(1, "None."), 5);
  load();
  ad.reset();
  h.time.advance(10);
  expectNothingLeft();

  makeAd();
  show();
  runtime.reset();
  ad.reset();
  h.time.advance(1);
  EXPECT_EQ(window->presentedCount(), 0) << "the end of the runtime takes the ad off the window";
}

}  // namespace
}  // namespace kva
