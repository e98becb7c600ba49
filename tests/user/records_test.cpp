#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/user/Application.h>
#include <Kelvara/user/Plan.h>

namespace kva {
namespace {

const Json kMinimal = {{"aid", "A"}, {"pp", "https://example.org/privacy"}};

Json with(Json json, const char* changes) {
  json.update(parseJson(changes).value());
  return json;
}

TEST(Application, NeedsOnlyItsIdAndItsPrivacyPolicy) {
  const Json whole = with(kMinimal, R"({
      "tids": [{"idfa":"d1","test":true,"suite":false,"log":true,"sandbox":true}],
      "btyp": ["banner","rewarded"], "bads": ["x"], "tmpv": {"t":3}, "hasc": true,
      "sett": {"dip":0,"nfsp":0,"sndm":false}})");
  EXPECT_EQ(Application::decode(whole).value().toJson(), whole);
  EXPECT_EQ(Application::decode(kMinimal).value().toJson(),
            with(kMinimal, R"({"tids":[], "btyp":[], "bads":[], "tmpv":{}, "hasc":false,
                "sett":{"dip":4,"nfsp":60,"sndm":true}})"));
  for (const char* broken : {R"({"aid":7})", R"({"aid":null})", R"({"pp":null})", R"({"pp":""})",
                             R"({"pp":"http://["})", R"({"pp":true})"})
    EXPECT_FALSE(Application::decode(with(kMinimal, broken))) << broken;
  for (const char* unreadable : {
           R"({"tids":[{"idfa":"a"},{"test":true}]})",  // one bad element spoils the list
           R"({"tids":{"idfa":"a"}})",
           R"({"btyp":["banner","video"]})",
           R"({"bads":["x",1]})",
           R"({"tmpv":{"a":1,"b":1.5}})",
           R"({"hasc":1})",
           R"({"sett":[1]})",
           R"({"AID":"other"})",
       })
    EXPECT_EQ(Application::decode(with(kMinimal, unreadable)), Application::decode(kMinimal))
        << unreadable;
}

TEST(ApplicationSetting, CountsPeriodsInHundredthsMemberByMember) {
  const std::pair<const char*, ApplicationSetting> cases[] = {
      {R"({"dip":3000,"nfsp":6000})", {30, 60, true}},
      {R"({"dip":199,"nfsp":-150})", {1, -1, true}},
      {R"({"dip":"x","sndm":false})", {4, 60, false}},
      {R"({"dip":500.0,"nfsp":12.5,"sndm":0})", {5, 60, true}},
      {R"({"dip":9223372036854775807,"nfsp":9.3e18})", {92233720368547758, 60, true}},
      {R"({"dip":9223372036854775808,"nfsp":true})", {4, 60, true}},
  };
  for (const auto& [json, expected] : cases)
    EXPECT_EQ(ApplicationSetting::decode(parseJson(json).value()), expected) << json;
}

TEST(Plan, NeedsAllFourMembers) {
  const Json json = {{"plan", "p"}, {"capd", 10}, {"caph", 2}, {"ecpm", 2500}};
  const auto plan = Plan::decode(json);
  EXPECT_EQ(plan, (Plan{"p", 10, 2, 2500}));
  EXPECT_EQ(plan->price(), 2.5);
  EXPECT_EQ(plan->toJson(), json);
  for (const char* broken : {"plan", "capd", "caph", "ecpm"}) {
    Json missing = json;
    missing.erase(broken);
    EXPECT_FALSE(Plan::decode(missing)) << broken;
  }
}

TEST(Tester, KeepsTheTestSuiteSwitchFromTheServer) {
  const auto tester = Tester::decode(
      {{"idfa", "d1"}, {"test", true}, {"suite", true}, {"log", 1}, {"sandbox", nullptr}});
  EXPECT_EQ(tester, (Tester{.testerId = "d1", .isTestAdsEnabled = true}));
}

}  // namespace
}  // namespace kva
