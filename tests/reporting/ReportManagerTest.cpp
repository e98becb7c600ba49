#include <thread>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/reporting/ReportManager.h>
#include <Kelvara/user/PrivacyManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Action = BidReportAction;
using Keys = SDKHelper::UserDefaultKeys;

constexpr double kPeriod = 60;
constexpr double kHour = 3600;
constexpr double kDay = 24 * kHour;

class Reports : public Stage {
 protected:
  static void track(const std::string& bidId, Action action) {
    ReportManager::shared().trackAction(bidId, action);
  }
  void tick(int times = 1) { h.time.advance(kPeriod * times); }

  /// The batches that the server got since the last call, each as its bids in order.
  std::vector<std::vector<std::string>> batches() {
    std::vector<std::vector<std::string>> all;
    for (const auto& request : h.server.requests("/bid/stats")) {
      auto& bids = all.emplace_back();
      const auto body = request.json();
      for (const auto& report : body["stats"]) bids.push_back(report["bid"]);
    }
    h.server.clearRequests();
    return all;
  }
  std::vector<std::string> stored(const char* key) {
    std::vector<std::string> bids;
    const auto bytes = h.defaults.get<Bytes>(key);
    if (!bytes) return {"nothing stored"};
    const auto reports = nlohmann::json::parse(asText(*bytes));
    for (const auto& [bid, report] : reports.items()) bids.push_back(bid);
    return bids;
  }
  void refuse(std::int64_t code) {
    h.server.reply("/bid/stats", headless::errorEnvelope(code, "Refused."));
  }
  void accept(double delaySeconds = 0) {
    h.server.reply("/bid/stats", headless::envelope("null"), delaySeconds);
  }
};

TEST_F(Reports, UploadSaysWhatHappenedToEachAd) {
  h.server.reply("/bid/stats", headless::envelope("null", 5'000'000'000'000));
  track("first", {Action::impression});
  tick();
  const auto sent = h.server.lastRequest("/bid/stats").json();
  const auto impressionAt = sent["stats"][0]["time"].get<std::int64_t>();
  EXPECT_NEAR(static_cast<double>(impressionAt), h.time.now() * 1000, 61'000);
  EXPECT_EQ(sent, nlohmann::json({{"aid", kAppId},
                                  {"uid", "user"},
                                  {"stats",
                                   {{{"bid", "first"},
                                     {"time", impressionAt},
                                     {"imp", true},
                                     {"fts", false},
                                     {"dism", false},
                                     {"clck", false},
                                     {"comp", false},
                                     {"quar", 0}}}}}));

  PrivacyManager::shared().setUserConsent(true);
  h.identifiers.authorize("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  for (Action action : {Action{Action::impression}, Action{Action::failToShow},
                        Action{Action::click}, Action{Action::complete}, Action{Action::dismiss},
                        Action{Action::videoQuarter, 4}, Action{Action::videoQuarter, 3}})
    track("second \"quoted\"", action);
  tick();
  const auto next = h.server.lastRequest("/bid/stats").json();
  EXPECT_EQ(next["idfa"], "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(next["stats"][0]["bid"], "first") << "unfinished, so it is sent again";
  auto second = next["stats"][1];
  EXPECT_GE(second["time"], 5'000'000'000'000) << "the server's clock";
  second.erase("time");
  EXPECT_EQ(second, nlohmann::json({{"bid", "second \"quoted\""},
                                    {"imp", true},
                                    {"fts", true},
                                    {"dism", true},
                                    {"clck", true},
                                    {"comp", true},
                                    {"quar", 3}}));
}

TEST_F(Reports, FinishedOnesGoAfterAnUploadUnfinishedOnesAfterAnHour) {
  track("dismissed", {Action::impression});
  track("dismissed", {Action::dismiss});
  track("failed", {Action::failToShow});
  track("running", {Action::impression});
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("dismissed", "failed", "running")));
  EXPECT_THAT(stored(Keys::reports), ElementsAre("running"));
  EXPECT_THAT(stored(Keys::reportsForUpload), IsEmpty());

  const int writes = h.defaults.writes();
  tick(10);
  EXPECT_THAT(batches(), IsEmpty()) << "nothing is new";
  EXPECT_EQ(h.defaults.writes(), writes);

  h.time.advance(kHour);
  track("other", {Action::dismiss});
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("other", "running")));
  EXPECT_THAT(stored(Keys::reports), IsEmpty());
}

TEST_F(Reports, OldOnesAreSentOnceMoreWhateverBecomesOfThem) {
  track("old", {Action::impression});
  h.defaults.remove(Keys::userId);
  launch();
  h.time.setNow(h.time.now() + 3 * kDay);
  track("new", {Action::impression});
  refuse(1);
  h.defaults.set(Keys::userId, std::string("user"));
  launch();
  tick(2);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("new", "old"), ElementsAre("new")));
}

TEST_F(Reports, WhatIsTrackedDuringAnUploadIsKept) {
  accept(30);
  track("slow", {Action::impression});
  track("hour old", {Action::impression});
  h.time.setNow(h.time.now() + 2 * kHour);
  h.time.advance(kPeriod + 15);
  track("hour old", {Action::dismiss});
  track("new", {Action::impression});
  h.time.advance(30);
  EXPECT_THAT(stored(Keys::reports), ElementsAre("hour old", "new"));
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("hour old", "slow")));
  track("new", {Action::click});
  tick();
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("hour old", "new")));
}

TEST_F(Reports, OneUploadAtATime) {
  statsSendPeriod = 10;
  launch();
  Log::shared().setLogLevel(LogLevel::d);
  accept(25);
  h.server.clearRequests();
  track("bid", {Action::impression});
  h.time.advance(60);
  EXPECT_EQ(h.output.count("<KVA> [D]: ReportManager: is already uploading."), 2);
  EXPECT_EQ(h.output.count("<KVA> [D]: ReportManager: report uploaded."), 1);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("bid")));
}

TEST_F(Reports, IntervalGrowsByPowersAndStaysGrown) {
  refuse(SDKHelper::GenericErrorCodes::internalServerError);
  track("bid", {Action::impression});
  const auto uploadsIn = [&](double seconds) {
    h.time.advance(seconds);
    return batches().size();
  };
  EXPECT_EQ(uploadsIn(kPeriod), 1u);
  EXPECT_EQ(uploadsIn(kPeriod * kPeriod - 1), 0u);
  EXPECT_EQ(uploadsIn(2), 1u);
  EXPECT_EQ(uploadsIn(kPeriod * kPeriod * kPeriod - 2), 0u);
  accept();
  EXPECT_EQ(uploadsIn(2), 1u);
  EXPECT_EQ(h.output.count("<KVA> [E]: ReportManager: upload error: Refused."), 2);

  // A success lets the interval stay; only the next error counts from the beginning.
  track("bid", {Action::click});
  EXPECT_EQ(uploadsIn(kPeriod * kPeriod * kPeriod - 2), 0u);
  refuse(SDKHelper::GenericErrorCodes::internalServerError);
  EXPECT_EQ(uploadsIn(2), 1u);
  track("other", {Action::click});
  EXPECT_EQ(uploadsIn(kPeriod * kPeriod + 1), 1u);
}

TEST_F(Reports, ErrorsOtherThanTheServersOwnKeepTheBatchBadRequestDropsAll) {
  track("bid", {Action::dismiss});
  refuse(42);
  tick();
  h.server.setOffline(true);
  tick();
  EXPECT_THAT(stored(Keys::reportsForUpload), ElementsAre("bid"));
  h.server.setOffline(false);
  refuse(SDKHelper::GenericErrorCodes::badRequest);
  tick();
  EXPECT_THAT(batches(), testing::SizeIs(3));
  EXPECT_THAT(stored(Keys::reports), IsEmpty());
  EXPECT_THAT(stored(Keys::reportsForUpload), IsEmpty());
  tick();
  EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(Reports, WaitForTheUserToBeRegistered) {
  h.defaults.remove(Keys::userId);
  launch();
  track("bid", {Action::impression});
  tick();
  EXPECT_THAT(batches(), IsEmpty());
  EXPECT_EQ(h.output.count("<KVA> [E]: ReportManager: user is not registered."), 1);
  EXPECT_THAT(stored(Keys::reportsForUpload), ElementsAre("bid"));
}

TEST_F(Reports, SurviveARestartAndAreSentByTheNextProcess) {
  track("bid", {Action::impression});
  track("bid", {Action::videoQuarter, 2});
  launch();
  track("bid", {Action::complete});
  tick();
  const auto report = h.server.lastRequest("/bid/stats").json()["stats"][0];
  EXPECT_TRUE(report["imp"] && report["comp"]) << report;
  EXPECT_EQ(report["quar"], 2);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("bid")));

  // The upload counts across the restart, but what was stored is sent once by each process.
  launch();
  tick(3);
  EXPECT_THAT(batches(), ElementsAre(ElementsAre("bid")));
}

TEST_F(Reports, WhatCannotBeReadCountsAsNothing) {
  const std::vector<UserDefaults::Value> damaged = {toBytes("{"), toBytes("[]"),
                                                    toBytes(R"({"bid":{"bidId":"bid"}})"),
                                                    std::string("{}"), toBytes(R"({"bid":7})")};
  for (const auto& value : damaged) {
    h.defaults.set(Keys::reports, value);
    h.defaults.set(Keys::reportsForUpload, value);
    h.defaults.set(Keys::lastReportUploadedAt, std::string("yesterday"));
    launch();
    tick();
    EXPECT_THAT(batches(), IsEmpty());
    track("bid", {Action::impression});
    EXPECT_THAT(stored(Keys::reports), ElementsAre("bid"));
  }
}

TEST_F(Reports, TimeOfTheLastUploadMayBeAnInteger) {
  track("bid", {Action::impression});
  h.defaults.set(Keys::lastReportUploadedAt, static_cast<std::int64_t>(h.time.now() + kDay));
  launch();
  tick();
  EXPECT_THAT(batches(), IsEmpty()) << "uploaded after all that was tracked";
}

TEST_F(Reports, TrackedOnSeveralThreadsAreAllStored) {
  {
    std::vector<std::jthread> threads;
    for (const char* thread : {"a", "b", "c", "d"}) {
      threads.emplace_back([thread] {
        for (int i = 0; i < 50; ++i) {
          track(thread + std::to_string(i), {Action::impression});
          track("shared", {Action::click});
        }
      });
    }
  }
  EXPECT_EQ(stored(Keys::reports).size(), 4u * 50 + 1);
  tick();
  EXPECT_EQ(batches()[0].size(), 4u * 50 + 1);
}

TEST_F(Reports, NeedAnApplicationRecord) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  runtime = nullptr;
  runtime = std::make_unique<Runtime>(h.platform());
  EXPECT_DEATH(track("bid", {Action::click}), "application record");
}

}  // namespace
}  // namespace kva
