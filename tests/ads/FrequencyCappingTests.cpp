#include <limits>
#include <thread>
#include <vector>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

constexpr const char* kKey = SDKHelper::UserDefaultKeys::frequencyCappingMembers;

class FrequencyCapping : public AdsTest {
 protected:
  static bool shouldShow(const Plan& plan) {
    return FrequencyCappingManager::shared().shouldShow(plan);
  }
  static void impress(int times = 1) {
    while (times-- > 0) FrequencyCappingManager::shared().trackImpression(kPlanA);
  }
  static std::string refusal() {
    const auto allowed = FrequencyCappingManager::shared().shouldRequestAdUnit(kAdUnit);
    return allowed ? "" : allowed.error().localizedDescription();
  }
  const Plan hourly{.planId = kPlanA, .frequencyCapDaily = 0, .frequencyCapHourly = 2};
  const Plan daily{.planId = kPlanA, .frequencyCapDaily = 3};
};

TEST_F(FrequencyCapping, APlanWithoutCapsLeavesNoTrace) {
  EXPECT_TRUE(shouldShow({.planId = kPlanA}));
  FrequencyCappingManager::shared().trackImpression(std::nullopt);
  EXPECT_EQ(stored(kKey), Json());
}

TEST_F(FrequencyCapping, TheHourlyCapHoldsForAnHourFromTheWindowsFirstImpression) {
  EXPECT_TRUE(shouldShow(hourly));
  impress();
  EXPECT_TRUE(shouldShow(hourly));
  h.time.advance(600);
  impress();
  EXPECT_FALSE(shouldShow(hourly));
  EXPECT_TRUE(shouldShow({kPlanA, 0, 3}));
  EXPECT_TRUE(shouldShow({kPlanB, 0, 2}));
  h.time.advance(2999);
  EXPECT_FALSE(shouldShow(hourly));
  h.time.advance(2);
  EXPECT_TRUE(shouldShow(hourly));
  impress();
  EXPECT_EQ(stored(kKey)[0]["hourlyImpressionCount"], 1);
  EXPECT_TRUE(shouldShow(hourly));
  impress();
  EXPECT_FALSE(shouldShow(hourly));
}

TEST_F(FrequencyCapping, TheDailyCapRefusesInTheFirstHourAndCountsAllDay) {
  impress(3);
  EXPECT_FALSE(shouldShow(daily));
  h.time.advance(7200);
  EXPECT_TRUE(shouldShow(daily));
  impress();
  EXPECT_EQ(stored(kKey)[0]["dailyImpressionCount"], 4);
  EXPECT_TRUE(shouldShow(daily));
  h.time.advance(86400 - 7200 + 1);
  impress();
  EXPECT_EQ(stored(kKey)[0]["dailyImpressionCount"], 1);
}

TEST_F(FrequencyCapping, CountersAreStoredInOrderOfFirstUseAndSurviveARestart) {
  const double began = h.time.now();
  shouldShow({kPlanB, 1, 0});
  impress(2);
  const auto member = [](const std::string& planId, int count, double at) {
    return Json({{"planId", planId},
                 {"hourlyImpressionCount", count},
                 {"dailyImpressionCount", count},
                 {"lastHourlyImpressionAt", at},
                 {"lastDailyImpressionAt", at}});
  };
  EXPECT_EQ(stored(kKey), Json::array({member(kPlanB, 0, 0), member(kPlanA, 2, began)}));

  restart();
  EXPECT_FALSE(shouldShow(hourly));
  impress();
  EXPECT_FALSE(shouldShow(daily));
  EXPECT_EQ(stored(kKey), Json::array({member(kPlanB, 0, 0), member(kPlanA, 3, began)}));
}

TEST_F(FrequencyCapping, WhatIsStoredAndUnreadableCountsAsNothing) {
  impress(2);
  const Json good = stored(kKey);
  Json shortOfAKey = good;
  shortOfAKey.push_back({{"planId", "x"}});
  Json mistyped = good;
  mistyped[0]["dailyImpressionCount"] = "2";
  for (const auto& bad :
       std::vector<UserDefaults::Value>{good.dump(), toBytes("[{"), toBytes("{}"), true,
                                        toBytes(shortOfAKey.dump()), toBytes(mistyped.dump())}) {
    h.defaults.set(kKey, bad);
    restart();
    EXPECT_TRUE(shouldShow(hourly));
  }
  h.defaults.set(kKey, toBytes(good.dump()));
  restart();
  EXPECT_FALSE(shouldShow(hourly));
}

TEST_F(FrequencyCapping, ACountBeyondItsRangeStopsTheProcess) {
  impress();
  Json members = stored(kKey);
  members[0]["dailyImpressionCount"] = std::numeric_limits<std::int64_t>::max();
  h.defaults.set(kKey, toBytes(members.dump()));
  restart();
  EXPECT_DEATH(impress(), "impression count beyond 64 bits");
}

TEST_F(FrequencyCapping, PausesAfterANofillUntilTheSleepHasPassed) {
  start();
  EXPECT_EQ(refusal(), "");
  FrequencyCappingManager::shared().trackNofill(kAdUnit);
  EXPECT_TRUE(FrequencyCappingManager::shared().shouldRequestAdUnit(kAppId));  // another unit
  const std::pair<double, const char*> waits[] = {
      {12.9, "Wait 18 seconds for ad request."},  {30, "Wait 0 seconds for ad request."},
      {30.9, "Wait 0 seconds for ad request."},   {31, ""},
      {-100, "Wait 130 seconds for ad request."},  // the user turns the clock back
  };
  const double began = h.time.now();
  for (const auto& [seconds, message] : waits) {
    h.time.setNow(began + seconds);
    EXPECT_EQ(refusal(), message) << seconds;
  }
}

TEST_F(FrequencyCapping, WithoutAnApplicationAPauseIsAnUnknownError) {
  FrequencyCappingManager::shared().trackNofill(kAdUnit);
  const auto allowed = FrequencyCappingManager::shared().shouldRequestAdUnit(kAdUnit);
  ASSERT_FALSE(allowed);
  EXPECT_EQ(allowed.error(), Error("Kelvara", -1, "Unknown error."));
}

TEST_F(FrequencyCapping, ABidServesOneAdUntilTheProcessRestarts) {
  auto* capping = &FrequencyCappingManager::shared();
  EXPECT_TRUE(capping->shouldRequestBid(kBid));
  EXPECT_FALSE(capping->shouldRequestBid(kBid));
  capping->trackBidUsed(kPlanB);
  EXPECT_FALSE(capping->shouldRequestBid(kPlanB));
  capping->trackNofill(kAdUnit);
  restart();
  EXPECT_TRUE(FrequencyCappingManager::shared().shouldRequestBid(kBid));
  EXPECT_EQ(refusal(), "");
}

TEST_F(FrequencyCapping, NothingThatThreadsCountIsLostInTheStore) {
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        impress();
        shouldShow({std::to_string(t * kEach + i), 0, 1});
      }
    });
  for (auto& thread : threads) thread.join();
  const Json members = stored(kKey);
  EXPECT_EQ(members.size(), kThreads * kEach + 1u);
  EXPECT_EQ(members[0]["hourlyImpressionCount"], kThreads * kEach);
}

}  // namespace
}  // namespace kva
