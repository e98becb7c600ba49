#include "server-check/ServerCheck.h"

#include "Kelvara/base/StringExtensions.h"
#include "sandbox/Client.h"

namespace kva::sandbox {
namespace {

class ServerCheck : public SandboxTest {
 protected:
  /// Returns the findings of the check: "/bid/init data.bid: missing, ...".
  std::vector<std::string> findings() const {
    for (const CataloguePlan& plan : findAdUnit(kPlayableAdUnit)->plans)
      control("plan", {{"plan", plan.id}, {"on", false}});
    const check::Options options = {.baseURL = server.baseURL(),
                                    .application = std::string(kApplicationId),
                                    .interstitial = std::string(kInterstitialAdUnit),
                                    .rewarded = std::string(kRewardedAdUnit),
                                    .unitWithoutDemand = std::string(kPlayableAdUnit),
                                    .timeoutSeconds = 1};
    std::vector<std::string> all;
    for (const check::Step& step : check::checkServer(options)) {
      for (const check::Finding& finding : step.findings) {
        EXPECT_FALSE(finding.sentence.empty()) << finding.problem;
        all.push_back(finding.call + " " + finding.problem);
      }
    }
    return all;
  }
};

TEST_F(ServerCheck, PassesTheSandboxAndNamesEveryPlantedFault) {
  using testing::AllOf, testing::Contains, testing::Each, testing::HasSubstr, testing::StartsWith;
  const std::tuple<std::string, std::string, const char*> table[] = {
      {"/init", "missing:data.pp", "data.pp: missing, expected an absolute URL"},
      {"/init", "wrong-type:data.tmpv", "data.tmpv: expected an object, got"},
      {"/init", "replace:data.sett.dip:4", "data.sett.dip: below 100"},
      {"/init", "replace:data.aid:\"x\"", "data.aid: expected"},
      {"/register", "error:503:Busy", "refused with 503, Busy"},
      {"/register", "replace:data.uid:\"KNOWN\"", "data.uid: used twice"},
      {"/update", "error:400:Bad", "refused with 400, Bad"},
      {"/bid/init", "missing:data.bid", "data.bid: missing, expected a UUID"},
      {"/bid/init", "replace:data.plans.0.ecpm:4.25",
       "data.plans[0].ecpm: expected an integer from 0, got 4.25"},
      {"/bid/init", "no-fill", "data.plans: empty for"},
      {"/bid/load", "replace:data.bid:\"x\"", "data.bid: expected"},
      {"/bid/load", "replace:data.tmpl:\"x\"", "data.tmpl: \"x\" is not in \"tmpv\" of /init"},
      {"/bid/load", "replace:data.crea.bton:{\"en\":\"Buy\"}",
       "data.crea.bton: expected a string that holds a JSON object of strings"},
      {"/bid/load", "replace:data.fls.0.ornt:\"square\"",
       "data.fls[0].ornt: expected one of landscape|portrait, got \"square\""},
      {"/bid/lost", "replace:data:{}", "data: expected true or false or null, got {}"},
      {"/bid/lost", "hang", "no answer: The request timed out."},
      {"/template", "replace:data.tver:1", "data.tver: expected at least 3, got 1"},
      {"/bid/stats", "replace:ok:true", "accepted"},
      {"/track", "not-ok", "err: null in a refusal"},
      {"*", "missing:err", "err: missing, expected an object or null"},
      {"*", "replace:time:1700000000", "time: is 1700000000, expected about"},
      {"*", "malformed", "body: expected an object, got no JSON"},
      {"*", "truncated", "no answer: The network connection was lost."},
      {"*", "reset", "no answer: The network connection was lost."},
  };
  EXPECT_THAT(findings(), testing::IsEmpty());
  for (const auto& [endpoint, fault, finding] : table) {
    SCOPED_TRACE(endpoint + " " + fault);
    server.reset();
    const auto scenario = Scenario::parse(replacingOccurrences(fault, "KNOWN", registeredUser()));
    ASSERT_TRUE(scenario) << scenario.error();
    ASSERT_TRUE(server.setScenario(endpoint, *scenario));
    // No finding names another endpoint.
    const auto start = endpoint == "*" ? "/" : endpoint;
    EXPECT_THAT(findings(), AllOf(Contains(HasSubstr(finding)), Each(StartsWith(start))));
  }
}

}  // namespace
}  // namespace kva::sandbox
