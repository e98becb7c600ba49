#include <Kelvara/reporting/ReportManager.h>
#include <Kelvara/reporting/ReportStore.h>
#include <Kelvara/user/PrivacyManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre, testing::IsEmpty;
using Action = BidReportAction;
using Keys = SDKHelper::UserDefaultKeys;

constexpr double kPeriod = 60, kHour = 3600, kDay = 24 * kHour;

class Reports : public Stage {
 protected:
  static void track(const std::string& bidId, Action action) {
    ReportManager::shared().trackAction(bidId, action);
  }
  void tick(int times = 1) { h.time.advance(kPeriod * times); }
  void jump(double seconds) { h.time.setNow(h.time.now() + seconds); }

  /// Returns and forgets the batches that the server got, each as its bids in order.
  std::vector<std::vector<std::string>> batches() {
    std::vector<std::vector<std::string>> all;
    for (const auto& request : h.server.requests("/bid/stats")) {
      auto& bids = all.emplace_back();
      const Json body = request.json();
      for (const auto& report : body["stats"]) bids.push_back(report["bid"]);
    }
    h.server.clearRequests();
    return all;
  }
  std::vector<std::string> stored(const char* key) {
    std::vector<std::string> bids;
    const auto reports = Stage::stored(key);
    for (const auto& [bid, report] : reports.items()) bids.push_back(bid);
    return bids;
  }
  void refuse(std::int64_t code, double delaySeconds = 0) {
    Stage::refuse("/bid/stats", code, "Refused.", delaySeconds);
  }
  void accept(double delaySeconds = 0) {
    h.server.reply("/bid/stats", headless::envelope("null"), delaySeconds);
  }
};

TEST_F(Reports, UploadTheEventsOfEachAd) {
  h.server.reply("/bid/stats", headless::envelope("null", 5'000'000'000'000));
  for (int quarter : {4, 3}) track("\"quoted\"", {Action::videoQuarter, quarter});
  tick();
  launch();  // reads the stored reports
  PrivacyManager::shared().setUserConsent(true);
  h.identifiers.authorize(kAppId);
  for (auto kind : {Action::impression, Action::failToShow}) track("shown", {kind});
  tick();

  const auto sent = h.server.lastRequest("/bid/stats").json();
  const auto& impressionAt = sent["stats"][1]["time"];
  EXPECT_GE(impressionAt, 5'000'000'000'000) << "the server's clock";
  Json quoted = {{"bid", "\"quoted\""}, {"time", 0},     {"imp", false},  {"fts", false},
                 {"dism", false},       {"clck", false}, {"comp", false}, {"quar", 3}};
  Json shown = quoted;
  shown.update(
      {{"bid", "shown"}, {"time", impressionAt}, {"imp", true}, {"fts", true}, {"quar", 0}});
  EXPECT_EQ(sent,
            Json({{"aid", kAppId}, {"uid", "user"}, {"idfa", kAppId}, {"stats", {quoted, shown}}}));
}

TEST_F(Reports, AreDroppedAfterAnUploadIfFinishedElseAfterAnHour) {
  h.time.advance(1);
  EXPECT_EQ(h.time.waiting(), 0u) << "a timer without a report to upload";
  track("dismissed", {Action::impression});
  track("dismissed", {Action::dismiss});
  track("failed", {Action::failToShow});
  track("running", {Action::impression});
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("dismissed", "failed", "running")));
  EXPECT_THAT(stored(Keys::reports), ElementsAre("running"));
  EXPECT_THAT(stored(Keys::reportsForUpload), IsEmpty());
  const int writes = h.defaults.writes();
  EXPECT_EQ(h.time.waiting(), 0u) << "a timer without a report to upload";
  h.time.advance(kPeriod / 2);
  tick(10);
  EXPECT_THAT(batches(), IsEmpty()) << "nothing is new";
  EXPECT_EQ(h.defaults.writes(), writes);

  launch();
  tick(3);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("running"))) << "once after a restart";
  h.time.advance(kHour + kPeriod / 4);
  track("other", {Action::dismiss});
  h.time.advance(kPeriod / 2);
  EXPECT_THAT(batches(), IsEmpty()) << "ticks stay multiples of the period";
  h.time.advance(kPeriod / 4);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("other", "running")));
  EXPECT_THAT(stored(Keys::reports), IsEmpty());
}

TEST_F(Reports, AreUploadedAtAnIntervalThatGrowsByPowersAndStays) {
  constexpr double kSquare = kPeriod * kPeriod, kCube = kSquare * kPeriod;
  // The interval to the next upload, and the error that it gets. Errors other than the server's
  // keep the interval and reset the exponent.
  constexpr std::pair<double, int> kUploads[] = {{kPeriod, 500}, {kSquare, 500}, {kCube, 42},
                                                 {kCube, 500},   {kSquare, 0},   {kSquare, 500},
                                                 {kSquare, 0}};
  for (const auto& [interval, code] : kUploads) {
    track("bid", {Action::click});
    code == 0 ? accept() : refuse(code);
    h.time.advance(interval - 1);
    EXPECT_THAT(batches(), IsEmpty()) << interval << " " << code;
    h.time.advance(1);
    EXPECT_THAT(batches(), testing::SizeIs(1)) << interval << " " << code;
  }
  EXPECT_EQ(h.output.count("<KVA> [E]: ReportManager: upload error: Refused."), 5);

  for (const int period : {0, -5}) {
    statsSendPeriod = period;
    launch();
    batches();
    for (int i = 0; i < 40; ++i) {
      track("bid", {Action::click});
      h.time.advance(0.25);
    }
    EXPECT_THAT(batches(), testing::SizeIs(10)) << period << ": at most once a second";
  }
  restart();
  EXPECT_DEATH(ReportManager::shared().start(), "application record");
}

TEST_F(Reports, WaitForTheUserToBeRegistered) {
  h.defaults.remove(Keys::userId);
  launch();
  track("bid", {Action::impression});
  tick();
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(h.output.count("<KVA> [E]: ReportManager: user is not registered."), 1);
  EXPECT_THAT(stored(Keys::reportsForUpload), ElementsAre("bid"));
  track("bid", {Action::click});
  tick();
  EXPECT_EQ(Stage::stored(Keys::reportsForUpload)["bid"]["isClicked"], true);
  const int writes = h.defaults.writes();
  tick(10);
  track("bid", {Action::click});
  EXPECT_EQ(h.defaults.writes(), writes) << "unchanged reports are not stored again";
}

TEST_F(Reports, OfSeveralProcessesShareTheStore) {
  statsSendPeriod = 20;
  launch();
  const auto elsewhere = std::make_shared<headless::MemoryUserDefaults>(h.defaults);
  ReportStore theirs(elsewhere, Keys::reports);
  const auto trackElsewhere = [&](const char* bidId, Action action) {
    const auto* known = theirs.find(bidId);
    auto report = known ? *known : BidReport{.bidId = bidId, .createdAt = h.time.now()};
    report.apply(action, 1);
    theirs.set(std::move(report));
    theirs.persist();
  };
  track("mine", {Action::dismiss});
  trackElsewhere("both", {Action::click});
  track("both", {Action::dismiss});
  EXPECT_THAT(stored(Keys::reports), ElementsAre("both", "mine"));

  auto claim = elsewhere->claim(UserDefaults::Task::upload);
  tick();
  EXPECT_THAT(batches(), IsEmpty()) << "the other process is uploading";
  claim.reset();
  accept(50);
  tick();
  const auto sent = h.server.lastRequest("/bid/stats").json()["stats"][0];
  EXPECT_TRUE(sent["bid"] == "both" && sent["clck"] && sent["dism"]) << sent;
  EXPECT_FALSE(elsewhere->claim(UserDefaults::Task::upload));
  theirs.refresh();
  trackElsewhere("both", {Action::complete});
  EXPECT_EQ(h.output.count("<KVA> [D]: ReportManager: is already uploading."), 5)
      << "three times the other process, then twice this one";
  h.time.advance(10);
  EXPECT_EQ(h.output.count("<KVA> [D]: ReportManager: report uploaded."), 1);
  EXPECT_THAT(stored(Keys::reports), ElementsAre("both")) << "changed since it was sent";

  refuse(400, 10);
  track("bad", {Action::dismiss});
  h.time.advance(10);
  trackElsewhere("later", {Action::impression});
  h.time.advance(10);
  EXPECT_THAT(stored(Keys::reports), ElementsAre("later")) << "tracked during the upload";
  EXPECT_THAT(stored(Keys::reportsForUpload), IsEmpty());
}

TEST_F(Reports, AreUploadedAndExpireDespiteClockJumps) {
  track("old", {Action::impression});
  jump(3 * kDay);
  track("new", {Action::impression});
  refuse(1);
  tick(2);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("new", "old"), ElementsAre("new")))
      << "an expired report is sent once more, even if that fails";
  accept();
  jump(kHour);
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("new")));

  jump(9 * kDay);
  track("ahead", {Action::impression});
  tick();
  jump(-9 * kDay);
  track("back", {Action::dismiss});
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("ahead"), ElementsAre("ahead", "back")));
  h.defaults.set(Keys::lastReportUploadedAt, static_cast<std::int64_t>(h.time.now() + kDay));
  launch();
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("ahead")));
  h.time.advance(kHour);
  track("other", {Action::dismiss});
  tick();
  EXPECT_THAT(stored(Keys::reports), IsEmpty()) << "unfinished for an hour";
}

}  // namespace
}  // namespace kva
