#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre, testing::IsEmpty, testing::StartsWith;

using FullscreenAds = AdStage;
using Events = std::vector<std::string>;

const Error noPage("KVAURLErrorDomain", 1004, "Could not connect.");
constexpr const char* kCounters = SDKHelper::UserDefaultKeys::frequencyCappingMembers;

TEST_F(FullscreenAds, NotifyTheHostFirstAndLeaveNothingBehind) {
  loadPage();
  EXPECT_EQ(page()->html(), "<html>A title</html>");
  takeScripts();
  host->onEvent = [&] {
    EXPECT_TRUE(stored(kCounters).is_null()) << "counted too early";
    EXPECT_THAT(takeScripts(), IsEmpty()) << "the host comes before the page";
  };
  ad->showAdFrom(window->viewController());
  EXPECT_FALSE(ad->isLoaded());
  h.time.advance(0.5);
  host->onEvent = nullptr;
  EXPECT_EQ(stored(kCounters)[0]["planId"], kPlanId);

  EXPECT_TRUE(window->tap({200, 400}));
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  close();
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent", "didClick", "didDismiss"));
  expectNothingLeft();
  present();
  EXPECT_EQ(host->events().back(), "didFailToPresent 0 Ad isn't ready.");
  const auto reports = uploadedReports();
  EXPECT_TRUE(reports[0]["imp"] && reports[0]["clck"] && reports[0]["dism"]) << reports;
}

TEST_F(FullscreenAds, EarnTheRewardAfterTheCountdownAndReportTheVideosProgress) {
  makeAd(KVABidType::rewarded);
  show({.contentType = "video", .arcDuration = 40, .adType = "rewarded"});
  EXPECT_TRUE(uploadedReports()[0]["comp"]);
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent", "didComplete"));
  // The quarter that is reported; 0 for no report.
  const std::pair<const char*, int> progress[] = {
      {"Event", 0},
      {"Event?duration=40&currenttime=41", 0},
      {"Event?duration=abc&currenttime=5.5", 0},
      {"Event?duration=40&currenttime=10,5", 0},
      {"Event?duration=4e1&currenttime=25.0", 1},  // one per event: the next catches up
      {"Event?duration=40&currenttime=20", 2},
      {"Event?duration=40&currenttime=29.9", 0},
      {"Event?duration=40&currenttime=30", 3},
      {"Event?duration=40&currenttime=40", 4},
      {"Event?duration=inf&currenttime=inf", 0},  // there is no fifth
      {"Event?duration=-4&currenttime=-4", 0},
      {"Complete", 4},
  };
  for (const auto& [command, quarter] : progress) {
    page()->navigate(std::string("kva://video") + command);
    const auto reports = uploadedReports();
    EXPECT_EQ(reports.is_null() ? 0 : reports[0]["quar"].get<int>(), quarter) << command;
  }
}

TEST_F(FullscreenAds, NotifyTheHostOnceWhyTheyDoNotLoad) {
  const std::string late = "didFailToReceive 1001 The page has not loaded in time. Load";
  const std::string offline = "didFailToReceive 4 No internet connection.";
  const std::pair<std::string, std::function<void()>> cases[] = {
      {late, [] {}},
      {late,
       [&] {
         serveAd({.contentType = "video"});
         h.time.after(0.05, [&] { page()->finishNavigation(); });  // but no preloadComplete
       }},
      {"didFailToReceive 11 No templete found.", [&] { refuse("/template", 1, "None."); }},
      {"didFailToReceive 12 HTML data isn't valid.", [&] { serveTemplate(""); }},
      {"didFailToReceive 1004 Could not connect.",
       [&] {
         h.time.after(0.05, [&] {
           for (int time = 0; time < 2; ++time) page()->failNavigation(noPage);
           page()->finishNavigation();
         });
       }},
      {"didFailToReceive 10 No MRAID.js file.",
       [&] {
         h.mainBundle.setPath("/nonexistent");
         launch();
       }},
      {offline, [&] { setNetwork(Network::down); }},
  };
  for (const auto& [event, prepare] : cases) {
    serveAd({});
    serveTemplate("<html></html>");
    prepare();
    h.time.run();
    makeAd(KVABidType::rewarded);
    load();
    h.time.advance(59);
    EXPECT_EQ(host->events().empty(), event == late);
    h.time.advance(1);
    EXPECT_THAT(host->events(), ElementsAre(StartsWith(event)));
    EXPECT_EQ(ad->isLoading(), event == offline) << event;
    EXPECT_FALSE(ad->isLoaded());
    EXPECT_TRUE(event != late || h.application.liveWebViews() == 0) << "a page that still loads";
  }
}

TEST_F(FullscreenAds, AreNotShownTwiceNorWithoutANetworkOrAPage) {
  Events outcomes;
  const auto controller = FullscreenAdVC::create(Ad::decode(adJson({})).value());
  for (int i = 0; i < 2; ++i) {
    controller->show(*window->viewController(), [&](const Result<bool>& shown) {
      outcomes.push_back(shown ? "shown" : shown.error().localizedDescription());
    });
    h.time.advance(0.5);
  }
  EXPECT_THAT(outcomes, ElementsAre("shown", "Ad is already shown."));
  uploadedReports();

  const std::pair<const char*, std::function<void()>> cases[] = {
      {"didFailToPresent 13 No internet connection.", [&] { setNetwork(Network::down); }},
      {"didFailToPresent 0 Ad isn't ready.", [&] { page()->terminateProcess(); }}};
  for (const auto& [event, prepare] : cases) {
    makeAd(KVABidType::rewarded);
    loadPage();
    prepare();
    present();
    EXPECT_THAT(host->events(), ElementsAre("didReceive", event));
    EXPECT_TRUE(uploadedReports().is_null());
    setNetwork(Network::up);
  }
  makeAd();
  show({.arcDuration = -5});  // without a countdown
  page()->terminateProcess();
  close();
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent", "didDismiss"));
}

TEST_F(FullscreenAds, BecomeReadyOnceWhateverThePageSends) {
  serveAd({.contentType = "video"});
  load();
  for (const char* command : {"kva://preloadComplete", "kva://videoComplete",
                              "kva://preloadComplete", "mraid://open?url=https://example.org"})
    EXPECT_FALSE(page()->navigate(command)) << "there is no ad view yet";
  EXPECT_TRUE(ad->isLoading());
  EXPECT_THAT(host->events(), IsEmpty());
  page()->finishNavigation();
  EXPECT_THAT(host->events(), ElementsAre("didReceive"));
  page()->navigate("kva://preloadComplete");
  page()->finishNavigation();
  page()->failNavigation(noPage);
  h.time.advance(120);
  present();
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent"));
}

TEST_F(FullscreenAds, HaveOneOutcomePerLoadAndSurviveAnEarlierDismissal) {
  h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.2);
  for (int time = 0; time < 2; ++time) load();
  h.time.advance(0.5);
  page()->finishNavigation();
  EXPECT_THAT(host->events(),
              ElementsAre("didFailToReceive 1 Ad data isn't available.", "didReceive"));

  // The ad on screen is closed before or after the page of the next ad has loaded.
  for (const bool isNextReady : {false, true}) {
    SCOPED_TRACE(isNextReady);
    makeAd();
    show();
    h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.6);
    ad->loadAd(bid(), 1.5);
    if (!isNextReady) window->pressEscape();
    h.time.advance(1);
    page()->finishNavigation();
    EXPECT_TRUE(ad->isLoaded());
    if (isNextReady) window->pressEscape();
    h.time.advance(0.5);
    ASSERT_TRUE(ad->isLoaded());
    present();
    close();
    Events order{"didReceive", "didPresent", "didDismiss",
                 "didReceive", "didPresent", "didDismiss"};
    if (isNextReady) std::swap(order[2], order[3]);
    EXPECT_EQ(host->events(), order);
    expectNothingLeft();
  }

  makeAd();
  loadPage();
  ad->showAdFrom(window->viewController());
  ad->loadAd(nullptr, 1.5);
  h.time.advance(0.5);
  EXPECT_EQ(stored(kCounters)[0]["dailyImpressionCount"], 5) << "counted despite the next load";
  EXPECT_THAT(
      host->events(),
      ElementsAre("didReceive", "didFailToReceive 7 Bid response isn't valid.", "didPresent"));
  EXPECT_TRUE(ad->isLoading());
}

TEST_F(FullscreenAds, EndWithTheirWindowAtAnyTime) {
  const Events noWindow{"didReceive",
                        "didFailToPresent 13 No window. Show the ad from a window that exists."};
  const Events shown{"didReceive", "didPresent", "didDismiss"};
  const std::tuple<std::string, double, Events> cases[] = {{"before", 0, noWindow},
                                                           {"hidden", 3, noWindow},
                                                           {"presenting", 0.1, noWindow},
                                                           {"shown", 3, shown},
                                                           {"closing", 3, shown}};
  for (const auto& [when, secondsAfterShow, events] : cases) {
    SCOPED_TRACE(when);
    makeAd();
    loadPage({.arcDuration = 1});  // an interstitial earns no reward at the countdown's end
    if (when == "before") window->destroy();
    if (when == "hidden") window->setOnScreen(false);
    ad->showAdFrom(window->viewController());
    h.time.advance(secondsAfterShow);
    if (when == "closing") tap("icon.close");
    h.time.advance(0.1);
    window->destroy();
    h.time.advance(3);
    EXPECT_EQ(host->events(), events);
    EXPECT_EQ(h.application.liveWebViews() + h.application.liveButtons(), 0);
    const auto reports = uploadedReports();
    EXPECT_TRUE(events == noWindow ? reports.is_null() : reports[0]["dism"] && reports[0]["imp"])
        << reports;
    window = h.application.makeWindow();
  }
}

TEST_F(FullscreenAds, WaitForTheirWindowToBeOnScreenAndCountDownOnlyWhileItIs) {
  makeAd(KVABidType::rewarded);
  loadPage({.arcDuration = 5, .adType = "rewarded"});
  window->setOnScreen(false);
  present();
  window->setOnScreen(true);
  h.time.advance(0.1);
  window->setOnScreen(false);  // during the presentation
  h.time.advance(100);
  EXPECT_THAT(host->events(), ElementsAre("didReceive"));
  EXPECT_TRUE(uploadedReports().is_null());

  window->setOnScreen(true);
  h.time.advance(0.5);
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent"));
  h.time.advance(3);
  takeScripts();
  window->setOnScreen(false);
  h.time.advance(100);
  EXPECT_THAT(takeScripts(), testing::Contains(testing::HasSubstr("viewable: false")));
  window->setOnScreen(true);
  h.time.advance(1);
  EXPECT_FALSE(sees("icon.close"));
  window->pressEscape();
  h.time.advance(2);
  EXPECT_THAT(host->events(), ElementsAre("didReceive", "didPresent", "didComplete"));
  close();
}

TEST_F(FullscreenAds, MayBeReleasedWhileTheyLoadAndWhileTheyAreShown) {
  host.reset();
  show();
  ad.reset();
  h.time.advance(3);
  close();
  expectNothingLeft();
  EXPECT_TRUE(uploadedReports()[0]["dism"]);

  makeAd();
  refuse("/template", 1, "None.", 5);
  load();
  ad.reset();
  h.time.advance(10);
  expectNothingLeft();

  makeAd();
  show();
  const auto closing = page();
  closing->clearScripts();
  runtime.reset();
  EXPECT_THAT(closing->scripts(), ElementsAre(testing::HasSubstr("viewable: false"),
                                              testing::HasSubstr("state: 'hidden'")));
  ad.reset();
  h.time.advance(1);
  EXPECT_EQ(window->presentedCount(), 0) << "removed at the end of the runtime";
}

}  // namespace
}  // namespace kva
