#include <algorithm>
#include <atomic>
#include <thread>

#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/presentation/FullscreenAdVC.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using headless::HeadlessViewController;
using testing::ElementsAre;
using testing::IsEmpty;

using Events = std::vector<std::string>;

std::string failed(const char* what, const Error& error) {
  return std::string(what) + " " + std::to_string(error.code()) + " " +
         error.localizedDescription();
}

struct InterstitialHost : KVAInterstitialDelegate {
  void interstitialDidReceive(KVAInterstital&) override { heard.push_back("receive"); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override {
    heard.push_back(failed("no receive", error));
  }
  void interstitialDidPresent(KVAInterstital&) override {
    heard.push_back("present");
    if (onPresent) onPresent();
  }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& error) override {
    heard.push_back(failed("no present", error));
  }
  void interstitialDidClick(KVAInterstital&) override { heard.push_back("click"); }
  void interstitialDidDismiss(KVAInterstital& ad) override {
    heard.push_back(ad.isLoaded() || ad.isLoading() ? "dismiss too early" : "dismiss");
  }
  Events heard;
  std::function<void()> onPresent;
};

struct RewardedHost : KVARewardedDelegate {
  void rewardedDidReceive(KVARewarded&) override { heard.push_back("receive"); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& error) override {
    heard.push_back(failed("no receive", error));
  }
  void rewardedDidPresent(KVARewarded&) override { heard.push_back("present"); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& error) override {
    heard.push_back(failed("no present", error));
  }
  void rewardedDidClick(KVARewarded&) override { heard.push_back("click"); }
  void rewardedDidComplete(KVARewarded&) override { heard.push_back("complete"); }
  void rewardedDidDismiss(KVARewarded&) override { heard.push_back("dismiss"); }
  Events heard;
};

template <class Ad, class Host>
class FullscreenAds : public Stage {
 protected:
  FullscreenAds() { makeAd(); }

  void makeAd() {
    ad = Ad::create();
    host = std::make_shared<Host>();
    ad->setDelegate(host);
  }

  void load() {
    ad->loadAd(bid(), 1.5);
    h.time.advance(0.1);
  }
  void loadPage(const AdFacts& facts = {}) {
    serveAd(facts);
    load();
    if (page()) page()->finishNavigation();
    h.time.run();
  }
  void show(const AdFacts& facts = {}) {
    loadPage(facts);
    ad->showAdFrom(window->viewController());
    h.time.advance(0.5);
  }

  /// The reports that the server has got, by the time that the next upload is over.
  nlohmann::json uploadedReports() {
    h.server.clearRequests();
    h.time.advance(61);
    const auto sent = h.server.requests("/bid/stats");
    return sent.empty() ? nlohmann::json() : sent.back().json()["stats"];
  }

  /// Whether the SDK has left anything on the device.
  void expectNothingLeft() {
    EXPECT_EQ(h.application.liveWebViews(), 0);
    EXPECT_EQ(h.application.liveButtons(), 0);
    EXPECT_EQ(h.application.liveViewControllers(), 0);
    EXPECT_EQ(h.application.liveViews(), viewsBefore);
    EXPECT_EQ(window->presentedCount(), 0);
  }

  std::shared_ptr<Ad> ad;
  std::shared_ptr<Host> host;
  int viewsBefore = h.application.liveViews();
};

using Interstitial = FullscreenAds<KVAInterstital, InterstitialHost>;
using Rewarded = FullscreenAds<KVARewarded, RewardedHost>;

TEST_F(Interstitial, IsLoadedShownClickedAndClosedAsTheHostHears) {
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

  const char* counters = SDKHelper::UserDefaultKeys::frequencyCappingMembers;
  host->onPresent = [&] { EXPECT_FALSE(h.defaults.get<Bytes>(counters)) << "counted too early"; };
  ad->showAdFrom(window->viewController());
  EXPECT_FALSE(ad->isLoaded());
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present"));
  EXPECT_THAT(asText(h.defaults.get<Bytes>(counters).value()), testing::HasSubstr(kPlanId));

  // A page opens nothing by itself; from the first tap on it may, and the click counts once.
  EXPECT_FALSE(page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa"));
  EXPECT_THAT(h.application.openedURLs(), IsEmpty());
  EXPECT_TRUE(window->tap({200, 400}));
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fa");
  page()->navigate("mraid://open?url=https%3A%2F%2Fexample.org%2Fb");
  EXPECT_THAT(h.application.openedURLs(),
              ElementsAre("https://example.org/a", "https://example.org/b"));

  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "click", "dismiss"));
  expectNothingLeft();
  ad->showAdFrom(window->viewController());
  EXPECT_EQ(host->heard.back(), "no present 0 Ad isn't ready.");

  const auto reports = uploadedReports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_TRUE(reports[0]["imp"] && reports[0]["clck"] && reports[0]["dism"]) << reports;
  EXPECT_FALSE(reports[0]["comp"] || reports[0]["fts"]) << reports;
}

TEST_F(Rewarded, EarnsTheRewardOnceTheCountdownIsOverAndFollowsTheVideo) {
  loadPage({.contentType = "video", .arcDuration = 40, .adType = "rewarded"});
  EXPECT_THAT(host->heard, IsEmpty()) << "a video is ready when it says so";
  page()->navigate("kva://preloadComplete");
  ad->showAdFrom(window->viewController());
  h.time.advance(0.5);
  EXPECT_FALSE(sees("icon.skip") || sees("icon.close"));

  EXPECT_EQ(uploadedReports()[0]["quar"], 0);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete"));
  EXPECT_TRUE(sees("icon.skip"));

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
      {"?duration=40&currenttime=25", 1},  // one for each event: the next catches up
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

  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "complete", "dismiss"));
  const auto reports = uploadedReports();
  EXPECT_TRUE(reports[0]["comp"] && reports[0]["dism"]) << reports;
  expectNothingLeft();
}

TEST_F(Interstitial, KnowsOfNoReward) {
  show({.arcDuration = 2});
  EXPECT_FALSE(sees("icon.close"));
  h.time.advance(2);
  EXPECT_TRUE(sees("icon.close"));
  EXPECT_THAT(host->heard, ElementsAre("receive", "present"));
}

TEST_F(Interstitial, CanBeClosedWhenItsCountdownCanNeverRun) {
  show({.arcDuration = -5});
  EXPECT_TRUE(sees("icon.close"));
  h.time.advance(10);
  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "dismiss"));
  expectNothingLeft();
}

TEST_F(Interstitial, CountdownThatRunsOutAfterDismissalDoesNothing) {
  show({.arcDuration = 5});
  page()->navigate("kva://videoComplete");  // shows close before its time
  h.time.run();
  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  expectNothingLeft();
  h.time.advance(10);
  EXPECT_THAT(host->heard, ElementsAre("receive", "present", "dismiss"));
  EXPECT_FALSE(uploadedReports().is_null());
}

TEST_F(Interstitial, FailuresReachTheHostOnceWithTheirStatus) {
  using Step = std::function<void()>;
  struct Case {
    Step prepare;
    const char* heard;
    bool isLoadingAfterwards;
  };
  const Error noPage("KVAURLErrorDomain", 1004, "Could not connect.");
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
  };
  for (const auto& test : cases) {
    makeAd();
    serveAd({});
    serveTemplate("<html></html>");
    test.prepare();
    load();
    EXPECT_EQ(ad->isLoading(), test.isLoadingAfterwards) << test.heard;
    EXPECT_THAT(host->heard, ElementsAre(test.heard));
    EXPECT_FALSE(ad->isLoaded());
  }

  makeAd();
  h.reachability.setFlags(0);
  h.time.run();
  load();
  EXPECT_THAT(host->heard, ElementsAre("no receive 4 No internet connection."));
}

TEST_F(Interstitial, FailsWithoutTheScript) {
  h.mainBundle.setPath("/nonexistent");
  loadPage();
  EXPECT_THAT(host->heard, ElementsAre("no receive 10 No MRAID.js file."));
}

TEST_F(Interstitial, IsNotShownWithoutANetwork) {
  loadPage();
  h.reachability.setFlags(0);
  h.time.run();
  ad->showAdFrom(window->viewController());
  EXPECT_THAT(host->heard, ElementsAre("receive", "no present 13 No internet connection."));
  EXPECT_EQ(window->presentedCount(), 0);
  EXPECT_TRUE(uploadedReports().is_null());
}

TEST_F(Interstitial, ControllerOnScreenIsNotShownAgain) {
  const auto controller = FullscreenAdVC::create(Ad::decode(adJson({})).value());
  Events outcomes;
  for (int i = 0; i < 2; ++i) {
    controller->show(*window->viewController(), [&](const Result<bool>& shown) {
      outcomes.push_back(shown ? "shown" : failed("refused", shown.error()));
    });
    h.time.advance(0.5);
  }
  EXPECT_THAT(outcomes, ElementsAre("shown", "refused 13 Ad is already shown."));
}

TEST_F(Interstitial, BecomesReadyOnceWhateverThePageSends) {
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
  page()->failNavigation(Error("KVAURLErrorDomain", 1004, "Could not connect."));
  EXPECT_THAT(host->heard, ElementsAre("receive"));
  EXPECT_TRUE(ad->isLoaded());
}

TEST_F(Interstitial, EachOfTwoLoadsAtOnceHasAnOutcome) {
  serveAd({});
  h.server.reply("/bid/load", headless::envelope(adJson({}).dump()), 0.2);
  ad->loadAd(bid(), 1.5);
  h.time.advance(0.1);
  load();
  h.time.advance(0.5);
  page()->finishNavigation();
  EXPECT_THAT(host->heard, ElementsAre("no receive 1 Ad data isn't available.", "receive"));
}

TEST_F(Interstitial, WindowThatGoesAwayTakesTheAdAlongAtAnyMoment) {
  struct Case {
    const char* when;
    double secondsAfterShow;
    bool isClosing;
    Events heard;
  };
  const std::vector<Case> cases = {
      {"presenting", 0.1, false, {"receive", "dismiss"}},
      {"shown", 3, false, {"receive", "present", "dismiss"}},
      {"closing", 3, true, {"receive", "present", "dismiss"}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.when);
    makeAd();
    loadPage();
    ad->showAdFrom(window->viewController());
    h.time.advance(test.secondsAfterShow);
    if (test.isClosing) tap("icon.close");
    h.time.advance(0.1);
    window->destroy();
    h.time.advance(3);
    EXPECT_EQ(host->heard, test.heard);
    EXPECT_EQ(h.application.liveWebViews() + h.application.liveButtons(), 0);
    EXPECT_TRUE(uploadedReports()[0]["dism"]);
    window = h.application.makeWindow();
  }

  makeAd();
  loadPage();
  window->destroy();
  ad->showAdFrom(window->viewController());
  h.time.advance(1);
  EXPECT_THAT(host->heard, ElementsAre("receive", "dismiss"));
  EXPECT_FALSE(uploadedReports()[0]["imp"]);
}

TEST_F(Interstitial, CanBeClosedAfterTheHostHasLetGoOfIt) {
  show();
  ad.reset();
  h.time.advance(3);
  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  expectNothingLeft();
  EXPECT_TRUE(uploadedReports()[0]["dism"]);
}

TEST_F(Interstitial, EndOfTheRuntimeTakesTheAdOffTheWindow) {
  show();
  runtime.reset();
  ad.reset();
  h.time.advance(1);
  EXPECT_EQ(window->presentedCount(), 0);
}

TEST_F(Interstitial, IsAskedOnAnotherThreadWhileItLoadsAndShows) {
  std::atomic<bool> isOver = false;
  std::atomic<int> sightings = 0;
  std::jthread asking([&] {
    while (!isOver) {
      sightings += ad->isLoaded() || ad->isLoading();
      ad->setDelegate(host);
    }
  });
  int shows = 0;
  for (; shows < 20 || sightings == 0; ++shows) {
    show();
    window->pressEscape();
    h.time.advance(1);
  }
  isOver = true;
  asking.join();
  EXPECT_EQ(std::ranges::count(host->heard, "dismiss"), shows);
}

TEST_F(Interstitial, NothingIsHeardWithoutADelegate) {
  host.reset();
  show();
  EXPECT_TRUE(tap("icon.close"));
  h.time.advance(0.5);
  expectNothingLeft();
}

TEST_F(Interstitial, TwentyAdsOneAfterTheOtherLeaveNothing) {
  for (int i = 0; i < 20; ++i) {
    loadPage({.contentType = i % 2 ? "image" : "video"});
    page()->navigate("kva://preloadComplete");
    ad->showAdFrom(window->viewController());
    h.time.advance(1);
    window->pressEscape();
    h.time.run();
    window->pressEscape();
    h.time.advance(1);
    expectNothingLeft();
  }
  EXPECT_EQ(std::ranges::count(host->heard, "dismiss"), 20);
}

}  // namespace
}  // namespace kva
