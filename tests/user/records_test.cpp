#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/user/Application.h>
#include <Kelvara/user/Plan.h>

namespace kva {
namespace {

const Json kMinimal = {{"aid", "A"}, {"pp", "https://example.org/privacy"}};

Json with(Json json, const Json& changes) {
  json.update(changes);
  return json;
}

Json without(Json json, const char* key) {
  json.erase(key);
  return json;
}

TEST(Application, NeedsOnlyItsIdAndItsPrivacyPolicy) {
  const auto application = Application::decode(kMinimal);
  ASSERT_TRUE(application);
  EXPECT_EQ(application->toJson(), parseJson(R"({"aid":"A", "tids":[], "btyp":[], "bads":[],
      "tmpv":{}, "hasc":false, "pp":"https://example.org/privacy",
      "sett":{"dip":4,"nfsp":60,"sndm":true}})")
                                       .value());

  for (const auto& broken :
       {without(kMinimal, "aid"), with(kMinimal, {{"aid", 7}}), with(kMinimal, {{"aid", nullptr}}),
        without(kMinimal, "pp"), with(kMinimal, {{"pp", ""}}), with(kMinimal, {{"pp", "no url"}}),
        with(kMinimal, {{"pp", true}}), Json::array({kMinimal}), Json()})
    EXPECT_FALSE(Application::decode(broken)) << broken;
}

TEST(Application, ReadsEveryMemberAndWritesItBack) {
  const Json json = with(kMinimal, parseJson(R"({
      "tids": [{"idfa":"d1","test":true,"suite":false,"log":true,"sandbox":true}],
      "btyp": ["banner","rewarded"], "bads": ["x"], "tmpv": {"t":3}, "hasc": true,
      "sett": {"dip":0,"nfsp":0,"sndm":false}})")
                                       .value());
  const auto application = Application::decode(json);
  ASSERT_TRUE(application);
  EXPECT_THAT(application->blockedAdTypes, testing::ElementsAre(AdType::banner, AdType::rewarded));
  EXPECT_TRUE(application->testers.at(0).isSandBoxEnabled);
  EXPECT_EQ(application->toJson(), json);
}

TEST(Application, TakesAnUnreadableOptionalMemberForMissing) {
  const auto plain = Application::decode(kMinimal);
  for (const char* text : {
           R"({"tids":[{"idfa":"a"},{"test":true}]})",  // one bad element spoils the list
           R"({"tids":{"idfa":"a"}})",
           R"({"btyp":["banner","video"]})",
           R"({"bads":["x",1]})",
           R"({"tmpv":{"a":1,"b":1.5}})",
           R"({"tmpv":{"a":99999999999999999999}})",
           R"({"hasc":1})",
           R"({"hasc":null})",
           R"({"sett":[1]})",
           R"({"AID":"other"})",
       })
    EXPECT_EQ(Application::decode(with(kMinimal, parseJson(text).value())), plain) << text;
}

TEST(ApplicationSetting, CountsPeriodsInHundredthsMemberByMember) {
  const struct {
    const char* json;
    ApplicationSetting expected;
  } cases[] = {
      {R"({"dip":3000,"nfsp":6000})", {30, 60, true}},
      {R"({"dip":199,"nfsp":-150})", {1, -1, true}},
      {R"({"dip":"x","sndm":false})", {4, 60, false}},
      {R"({"dip":1e30,"nfsp":12.5,"sndm":0})", {4, 60, true}},
      {R"({"dip":true,"nfsp":9223372036854775807})", {4, 92233720368547758, true}},
  };
  for (const auto& [json, expected] : cases)
    EXPECT_EQ(ApplicationSetting::decode(parseJson(json).value()), expected) << json;
  const Json written = {{"dip", 30}, {"nfsp", 60}, {"sndm", false}};
  EXPECT_EQ((ApplicationSetting{30, 60, false}.toJson()), written);
}

TEST(Plan, NeedsAllFourMembers) {
  const Json json = {{"plan", "p"}, {"capd", 10}, {"caph", 2.0}, {"ecpm", 2500}};
  const auto plan = Plan::decode(json);
  ASSERT_TRUE(plan);
  EXPECT_EQ(*plan, (Plan{"p", 10, 2, 2500}));
  EXPECT_EQ(plan->price(), 2.5);
  EXPECT_EQ(plan->toJson(), json);
  for (const char* key : {"plan", "capd", "caph", "ecpm"}) {
    EXPECT_FALSE(Plan::decode(without(json, key))) << key;
    EXPECT_FALSE(Plan::decode(with(json, {{key, nullptr}}))) << key;
    EXPECT_FALSE(Plan::decode(with(json, {{key, 0.5}}))) << key;
  }
}

TEST(Tester, KeepsTheTestSuiteSwitchFromTheServer) {
  const auto tester = Tester::decode(
      {{"idfa", "d1"}, {"test", true}, {"suite", true}, {"log", 1}, {"sandbox", nullptr}});
  EXPECT_EQ(tester, (Tester{.testerId = "d1", .isTestAdsEnabled = true}));
  EXPECT_FALSE(Tester::decode({{"test", true}}));
}

}  // namespace
}  // namespace kva
