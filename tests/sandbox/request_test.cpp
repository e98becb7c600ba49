#include "sandbox/Client.h"
#include "sandbox/Scenario.h"
#include "sandbox/Schema.h"

namespace kva::sandbox {
namespace {

using testing::ElementsAre, testing::Field, testing::IsEmpty, testing::Matcher, testing::Property,
    testing::StartsWith, testing::Truly;

/// The wrong fields that the table of kelvara-server-check's test lacks.
TEST(SandboxRequest, NamesTheWrongFieldAndTheExpectedValue) {
  const std::tuple<const char*, Json, const char*> table[] = {
      {"/register", {{"aid", "x"}}, "aid: expected a UUID, got \"x\""},
      {"/register", {{"sdkv", "1.2."}}, "sdkv: expected a version such as \"1.2.0\", got \"1.2.\""},
      {"/register", {{"cnst", 2}}, "cnst: expected an integer from -1 to 1, got 2"},
      {"/register", {{"idfa", "-"}}, "idfa: expected a UUID or the empty string, got \"-\""},
      {"/register", {{"dmod", "m"}}, "dmod: not expected here"},
      {"/bid/stats",
       {{"stats", Json::array()}},
       "stats: expected a list of at least one object, got []"},
      {"/bid/stats", {{"stats", {report(kSomeUUID), 5}}}, "stats[1]: expected an object, got 5"},
      {"/track", {{"eid", 5}}, "eid: expected a string or null, got 5"},
  };
  for (const auto& [endpoint, changes, message] : table) {
    const auto& contract = contract::Contract::current();
    EXPECT_THAT(contract.checkRequest(endpoint, request(endpoint)), IsEmpty()) << endpoint;
    EXPECT_THAT(contract.checkRequest(endpoint, request(endpoint, changes)),
                ElementsAre(Property(&contract::Breach::text, message)));
  }
}

TEST(SandboxRequest, ChecksMethodPathHeadersAndQuery) {
  const std::string json = "application/json", aid = kSomeUUID, good = request("/track").dump();
  const std::pair<RawRequest, std::string> table[] = {
      {{"POST", "/nowhere", {}, json, json, good}, "path: no endpoint /nowhere"},
      {{"GET", "/track", {}, json, json, good}, "method: expected POST, got GET"},
      {{"POST", "/track", {}, "*/*", json, good}, "Accept: expected application/json, got \"*/*\""},
      {{"POST", "/track", {}, json, "text/plain", good},
       "Content-Type: expected application/json, got \"text/plain\""},
      {{"POST", "/track", {}, json, json, "{"}, "body: expected an object, got no JSON"},
      {{"POST", "/track", {}, json, json, "[1]"}, "body: expected an object, got [1]"},
      {{"POST", "/bid/load", {}, json, json, request("/bid/load", {{"recpm", UINT64_MAX}}).dump()},
       "recpm: expected an integer from 0, got 1.8446744073709552e+19"},
      {{"POST", "/track", {{"aid", aid}}, json, json, good}, "query: expected none with POST"},
      {{"POST", "/track", {}, json, json, good}, "ok"},
      {{"GET", "/template", {{"aid", aid}, {"tmpl", "t"}, {"tver", "3"}}, json, json, ""}, "ok"},
      {{"GET", "/template", {}, json, json, "{}"}, "body: expected none with GET"},
      {{"GET", "/template", {{"aid", aid}, {"tmpl", "t"}, {"tver", "3x"}}, json, json, ""},
       "tver: expected an integer, got \"3x\""},
      {{"GET", "/template", {{"aid", aid}, {"aid", "x"}}, json, json, ""}, "aid: given twice"},
  };
  for (const auto& [request, problem] : table) {
    const auto checked = checkRequest(request);
    EXPECT_EQ(checked ? "ok" : checked.error(), problem);
  }
}

using SandboxScenario = SandboxTest;

/// The scenarios that kelvara-server-check cannot tell apart; its test plants the others.
TEST_F(SandboxScenario, SpoilsTheBytesAsItsNameSays) {
  const auto isOk = Property(&Reply::verdict, "ok");
  const auto hasNoBody = Field(&Reply::body, IsEmpty());
  const auto isHalf = Truly([](const Reply& r) {
    const auto announced = r.head.find("Content-Length: ") + sizeof "Content-Length: " - 1;
    return std::stoul(r.head.substr(announced)) / 2 == r.body.size();
  });
  const auto isNoJson =
      Truly([](const Reply& r) { return r.body.size() > 100 && r.json().is_discarded(); });
  const auto lacksTheSecondCap = Truly([](const Reply& r) {
    const Json plans = r.json()["data"]["plans"];
    return plans[0].contains("caph") && !plans[1].contains("caph");
  });
  const auto hasTwoAnswers = Truly([](const Reply& r) {
    const auto second = r.body.find("HTTP/1.1 200");
    return second != std::string::npos && r.body.starts_with(r.body.substr(r.body.size() - second));
  });
  const struct {
    const char* scenario;
    int status;
    Matcher<const Reply&> asNamed;
    bool isReset = false;
    std::size_t bids = 1;  // that the server makes
  } table[] = {
      {"not-ok", 200, Property(&Reply::verdict, "not ok"), false, 0},
      {"error:503:Busy now", 503, Property(&Reply::verdict, "503 Busy now"), false, 0},
      {"missing:data.plans.1.caph", 200, lacksTheSecondCap},
      {"missing:data.plans.9.caph", 200, isOk},
      {"empty", 200, hasNoBody},
      {"reset", 0, Field(&Reply::head, IsEmpty()), true},
      {"throttled", 200, isOk},
      {"truncated", 200, isHalf},
      {"cut-head", 200, hasNoBody},
      {"reset-body", 200, isHalf, true},
      {"garbage-before", 0, Field(&Reply::head, StartsWith("\x16\x03"))},
      {"garbage-within", 200, isNoJson},
      {"repeated-bytes", 200, isNoJson},
      {"repeated-answer", 200, hasTwoAnswers},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.scenario);
    server.setScenario("/bid/init", Scenario::parse(row.scenario).value());
    const auto before = server.state().bids.size();
    const Reply reply = call("/bid/init", bidRequest(uid));
    EXPECT_EQ(reply.isReset, row.isReset);
    EXPECT_EQ(reply.status, row.status);
    EXPECT_THAT(reply, row.asNamed) << reply.head << "\n\n" << reply.body;
    EXPECT_EQ(server.state().bids.size(), before + row.bids);
  }
}

}  // namespace
}  // namespace kva::sandbox
