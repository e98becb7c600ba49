#include <limits>
#include <thread>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

constexpr const char* kKey = SDKHelper::UserDefaultKeys::frequencyCappingMembers;

class FrequencyCapping : public Stage {
 protected:
  static bool shouldShow(const Plan& plan) {
    return FrequencyCappingManager::shared().shouldShow(plan);
  }
  static void impress(int times = 1, const char* plan = kPlanId) {
    while (times-- > 0) FrequencyCappingManager::shared().trackImpression(plan);
  }
  Json stored() { return Stage::stored(kKey); }
  const Plan hourly{.planId = kPlanId, .frequencyCapDaily = 0, .frequencyCapHourly = 2};
  const Plan daily{.planId = kPlanId, .frequencyCapDaily = 3};
};

TEST_F(FrequencyCapping, AppliesTheHourlyCapForAnHourFromTheWindowsFirstImpression) {
  EXPECT_TRUE(shouldShow({.planId = kPlanId}));
  FrequencyCappingManager::shared().trackImpression(std::nullopt);
  EXPECT_EQ(stored(), Json()) << "nothing is stored without a plan";
  impress();
  EXPECT_TRUE(shouldShow(hourly));
  h.time.advance(600);
  impress();
  EXPECT_TRUE(shouldShow({"other", 0, 2}));
  h.time.advance(2999);
  EXPECT_FALSE(shouldShow(hourly));
  h.time.advance(2);
  EXPECT_TRUE(shouldShow(hourly));
  impress();
  EXPECT_TRUE(shouldShow(hourly)) << "a new window counts from one";
  impress();
  EXPECT_FALSE(shouldShow(hourly));
}

TEST_F(FrequencyCapping, StoresCountersInOrderOfFirstImpressionAndReadsThemAfterARestart) {
  const double began = h.time.now();
  impress(1, "other");
  impress(2);
  const auto member = [began](const std::string& planId, const Json& count) {
    return Json({{"planId", planId},
                 {"hourlyImpressionCount", count},
                 {"dailyImpressionCount", count},
                 {"lastHourlyImpressionAt", began},
                 {"lastDailyImpressionAt", began}});
  };
  EXPECT_EQ(stored(), Json::array({member("other", 1), member(kPlanId, 2)}));

  const auto restartWith = [&](const Json& count) {
    h.defaults.set(kKey, toBytes(Json::array({member(kPlanId, count)}).dump()));
    restart();
  };
  restartWith(2);
  EXPECT_FALSE(shouldShow(hourly));
  restartWith("2");
  EXPECT_TRUE(shouldShow(hourly)) << "malformed data counts as none";
  restartWith(std::numeric_limits<std::int64_t>::max());
  EXPECT_DEATH(impress(), "impression count exceeds 64 bits");
}

TEST_F(FrequencyCapping, StoresOnlyShownPlansWithAnOpenWindow) {
  for (int i = 0; i < 100; ++i) shouldShow({std::to_string(i), 1, 1});
  EXPECT_EQ(stored(), Json());
  impress(1, "first");
  h.time.advance(1);
  impress(1, "second");
  h.time.advance(86400);
  impress();
  EXPECT_EQ(stored().size(), 2u) << "the second plan's day ends now";
  EXPECT_EQ(stored()[0]["planId"], "second");
  impress(1, "second");
  EXPECT_EQ(stored()[0]["dailyImpressionCount"], 2) << "found at its new index";
  const int writes = h.defaults.writes();
  EXPECT_TRUE(shouldShow(hourly));
  EXPECT_EQ(h.defaults.writes(), writes);
  for (int i = 0; i < 80; ++i) impress(1, std::to_string(i).c_str());
  h.time.advance(2 * 86400);
  restart();
  for (const auto left : {82 - 64 + 1, 1}) {
    impress(1, "last");
    EXPECT_EQ(stored().size(), left) << "an impression drops a limited number";
  }
}

TEST_F(FrequencyCapping, CountsImpressionsOfOtherProcessesAndThoseNotStoredYet) {
  auto elsewhere = [store = headless::MemoryUserDefaults(h.defaults)]() mutable {
    EXPECT_TRUE(store.edit([](KeyedValues& values) {
      Json members = Json::parse(asText(*values.get<Bytes>(kKey)));
      auto& count = members[0]["hourlyImpressionCount"];
      count = count.get<int>() + 1;
      values.set(kKey, toBytes(members.dump()));
    }));
  };
  impress();
  elsewhere();
  EXPECT_FALSE(shouldShow(hourly));
  impress();
  EXPECT_EQ(stored()[0]["hourlyImpressionCount"], 3);
  h.defaults.setBusy(true);
  impress();
  h.defaults.setBusy(false);
  elsewhere();
  impress();
  EXPECT_EQ(stored()[0]["hourlyImpressionCount"], 6);

  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([] { impress(50); });
  threads.clear();
  EXPECT_EQ(stored()[0]["hourlyImpressionCount"], 206) << "of several threads";
}

TEST_F(FrequencyCapping, PausesAfterANofillUntilTheSleepHasPassed) {
  const auto refusal = [] {
    const auto allowed = FrequencyCappingManager::shared().shouldRequestAdUnit("unit");
    return allowed ? "" : allowed.error().localizedDescription();
  };
  FrequencyCappingManager::shared().trackNofill("another");
  EXPECT_EQ(refusal(), "");
  FrequencyCappingManager::shared().trackNofill("unit");
  for (const auto& [seconds, message] : {std::pair(12.9, "Wait 48 seconds for ad request."),
                                         {48.0, "Wait 0 seconds for ad request."},
                                         {0.1, ""}}) {
    h.time.advance(seconds);
    for (const double clockJump : {-86400.0, 2 * 86400.0}) {
      h.time.setNow(h.time.now() + clockJump);
      EXPECT_EQ(refusal(), message) << seconds << " " << clockJump;
    }
  }
  restart();
  FrequencyCappingManager::shared().trackNofill("unit");
  EXPECT_EQ(refusal(), "Unknown error.") << "no application record yet";
}

TEST_F(FrequencyCapping, CountsImpressionsOfAClockThatWasAheadFromNow) {
  const double ahead = 20 * 3600;
  for (const auto& plan : {hourly, daily}) {
    h.defaults.remove(kKey);
    launch();
    h.time.setNow(h.time.now() + ahead);
    impress(3);
    h.time.setNow(h.time.now() - ahead);
    EXPECT_FALSE(shouldShow(plan));
    h.time.advance(1800);
    launch();
    EXPECT_FALSE(shouldShow(plan));
    h.time.advance(1801);
    EXPECT_TRUE(shouldShow(plan)) << "an hour has passed, including a restart";
  }
  h.time.setNow(h.time.now() + 10 * ahead);
  impress();
  h.time.setNow(h.time.now() - 9 * ahead);
  impress();
  EXPECT_EQ(stored()[0]["lastDailyImpressionAt"], h.time.now());
}

}  // namespace
}  // namespace kva
