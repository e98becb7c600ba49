#include <Kelvara/presentation/FullscreenAdVC.h>
#include <presentation/AdStage.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using FullscreenAds = AdStage;

const Error noPage("KVAURLErrorDomain", 1004, "Could not connect.");

TEST_F(FullscreenAds, AreLoadedShownClickedAndClosedAsTheHostHears) {
  EXPECT_FALSE(ad->isLoading() || ad->isLoaded());
  serveAd({});
  ad->loadAd(bid(), 1.5);
  EXPECT_TRUE(ad->isLoading());
  h.time.advance(0.1);
  EXPECT_EQ(page()->html(), "<html>A title</html>");
  EXPECT_THAT(host->heard, IsEmpty());
  page()->finishNavigation();
  EXPECT_THAT(host->heard, ElementsAre("receive"));
  EXPECT_TRUE(ad->isLoaded() && !ad->isLoading());
  told();

  const char* counters = SDKHelper::UserDefaultKeys::frequencyCappingMembers;
  host->onEvent = [&] {
    EXPECT_FALSE(h.defaults.get<Bytes>(counters)) << "counted too early";
    EXPECT_THAT(told(), IsEmpty()) << "the host comes before the page";
  };
  present();
  host->onEvent = nullptr;
  EXPECT_FALSE(ad->isLoaded());
  EXPECT_THAT(host->heard, ElementsAre("receive", "present"));
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
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_TRUE(reports[0]["imp"] && reports[0]["clck"] && reports[0]["dism"]) << reports;
  EXPECT_FALSE(reports[0]["comp"] || reports[0]["fts"]) << reports;
}

TEST_F(FullscreenAds, EarnTheRewardAfterTheCountdownAndFollowTheVideo) {
  make<KVARewarded>();
  loadPage({.contentType = "video", .arcDuration = 40, .adType = "rewarded"});
  EXPECT_THAT(host->heard, IsEmpty()) << "a video is ready when it says so";
  page()->navigate("kva://preloadComplete");
  present();
  EXPECT_EQ(uploadedReports()[0]["quar"], 0);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete"));

  // The quarter that the server hears of; 0 when there is no news for it.
  const auto quarterAt = [&](const std::string& query) {
    page()->navigate("kva://videoEvent" + query);
    const auto reports = uploadedReports();
    return reports.is_null() ? 0 : reports[0]["quar"].get<int>();
  };
  const std::vector<std::pair<const char*, int>> progress = {
      {"", 0},
      {"?duration=40&currenttime=41", 0},
      {"?duration=abc&currenttime=5.5", 0},
      {"?duration=40s&currenttime=10", 0},
      {"?duration=40&currenttime=9,99", 0},
      {"?duration=40&currentTime=10", 0},
      {"?duration=40&currenttime=9.99", 0},
      {"?duration=4e1&currenttime=25.0", 1},  // one for each event: the next catches up
      {"?duration=40&currenttime=20", 2},
      {"?duration=40&currenttime=29.9", 0},
      {"?duration=40&currenttime=30", 3},
      {"?duration=40&currenttime=40", 4},
      {"?duration=inf&currenttime=inf", 0},  // there is no fifth
      {"?duration=nan&currenttime=nan", 0},
      {"?duration=-4&currenttime=-4", 0},
  };
  for (const auto& [query, quarter] : progress) EXPECT_EQ(quarterAt(query), quarter) << query;
  page()->navigate("kva://videoComplete");
  EXPECT_EQ(uploadedReports()[0]["quar"], 4);

  close();
  window->tap({200, 400});
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete", "dismiss"));
  const auto reports = uploadedReports();
  EXPECT_TRUE(reports[0]["comp"] && reports[0]["dism"]) << reports;
  expectNothingLeft();
}

TEST_F(FullscreenAds, TellTheHostOnceWhyTheyDoNotLoad) {
  struct Case {
    std::function<void()> prepare;
    const char* heard;
    bool isLoadingAfterwards;
  };
  const std::vector<Case> cases = {
      {[&] { h.server.reply("/bid/load", headless::errorEnvelope(42, "No ad.")); },
       "no receive 42 No ad.", true},
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
      {[&] { h.reachability.setFlags(0); }, "no receive 4 No internet connection.", true},
  };
  for (const auto& test : cases) {
    make<KVAInterstital>();
    serveAd({});
    serveTemplate("<html></html>");
    test.prepare();
    h.time.run();
    load();
    EXPECT_THAT(host->heard, ElementsAre(test.heard));
    EXPECT_EQ(ad->isLoading(), test.isLoadingAfterwards) << test.heard;
    EXPECT_FALSE(ad->isLoaded());
  }
}

TEST_F(FullscreenAds, DoNotLoadWithoutTheScript) {
  h.mainBundle.setPath("/nonexistent");
  loadPage();
  EXPECT_THAT(host->heard, ElementsAre("no receive 10 No MRAID.js file."));
}

TEST_F(FullscreenAds, AreNotShownWithoutANetworkNorTwice) {
  std::vector<Result<bool>> outcomes;
  const auto controller = FullscreenAdVC::create(Ad::decode(adJson({})).value());
  for (int i = 0; i < 2; ++i) {
    controller->show(*window->viewController(),
                     [&](Result<bool> shown) { outcomes.push_back(shown); });
    h.time.advance(0.5);
  }
  ASSERT_EQ(outcomes.size(), 2u);
  EXPECT_TRUE(outcomes[0].has_value());
  EXPECT_EQ(outcomes[1].error().localizedDescription(), "Ad is already shown.");
  EXPECT_EQ(outcomes[1].error().code(), 13);
  uploadedReports();

  loadPage();
  h.reachability.setFlags(0);
  h.time.run();
  present();
  EXPECT_THAT(host->heard, ElementsAre("receive", "no present 13 No internet connection."));
  EXPECT_EQ(window->presentedCount(), 1);
  EXPECT_TRUE(uploadedReports().is_null());
}

TEST_F(FullscreenAds, BecomeReadyOnceWhateverThePageSends) {
  serveAd({.contentType = "video"});
  load();
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
  EXPECT_TRUE(ad->isLoaded());
}

TEST_F(FullscreenAds, HaveAnOutcomeForEachOfTwoLoadsAtOnce) {
  h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.2);
  load();
  load();
  h.time.advance(0.5);
  page()->finishNavigation();
  EXPECT_THAT(host->heard, ElementsAre("no receive 1 Ad data isn't available.", "receive"));
}

TEST_F(FullscreenAds, GoWithTheirWindowAtAnyMoment) {
  struct Case {
    const char* when;
    double secondsAfterShow;
    bool isClosing;
    std::vector<std::string> heard;
  };
  const std::vector<Case> cases = {
      {"before", -1, false, {"receive", "dismiss"}},
      {"presenting", 0.1, false, {"receive", "dismiss"}},
      {"shown", 3, false, {"receive", "present", "dismiss"}},
      {"closing", 3, true, {"receive", "present", "dismiss"}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.when);
    make<KVAInterstital>();
    loadPage();
    if (test.secondsAfterShow < 0) window->destroy();
    ad->showAdFrom(window->viewController());
    h.time.advance(std::max(0.0, test.secondsAfterShow));
    if (test.isClosing) tap("icon.close");
    h.time.advance(0.1);
    window->destroy();
    h.time.advance(3);
    EXPECT_EQ(host->heard, test.heard);
    EXPECT_EQ(h.application.liveWebViews() + h.application.liveButtons(), 0);
    const auto reports = uploadedReports();
    EXPECT_TRUE(reports[0]["dism"]);
    EXPECT_EQ(reports[0]["imp"], test.secondsAfterShow > 1);
    window = h.application.makeWindow();
  }
}

TEST_F(FullscreenAds, MayBeLetGoWhileTheyLoadAndWhileTheyAreShown) {
  host.reset();
  show();
  ad.reset();
  h.time.advance(3);
  close();
  expectNothingLeft();
  EXPECT_TRUE(uploadedReports()[0]["dism"]);

  make<KVAInterstital>();
  h.server.reply("/template", headless::errorEnvelope(1, "None."), 5);
  load();
  ad.reset();
  h.time.advance(10);
  EXPECT_THAT(host->heard, IsEmpty());
  expectNothingLeft();

  make<KVAInterstital>();
  show();
  runtime.reset();
  ad.reset();
  h.time.advance(1);
  EXPECT_EQ(window->presentedCount(), 0) << "the end of the runtime takes the ad off the window";
}

}  // namespace
}  // namespace kva
