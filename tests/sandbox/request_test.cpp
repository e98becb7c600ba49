#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Client.h"
#include "sandbox/Scenario.h"
#include "sandbox/Schema.h"

namespace kva::sandbox {
namespace {

RawRequest goodRequest(const std::string& endpoint) {
  return {.method = "POST",
          .path = endpoint,
          .query = {},
          .accept = "application/json",
          .contentType = "application/json",
          .body = request(endpoint).dump()};
}

std::string problemOf(const RawRequest& request) {
  auto checked = checkRequest(request);
  return checked ? "ok" : checked.error();
}

TEST(SandboxRequest, NamesTheWrongFieldAndTheExpectedValue) {
  Json shortReport = report(kSomeUUID), numberedFlag = report(kSomeUUID);
  shortReport.erase("fts");
  numberedFlag["imp"] = 1;
  const struct {
    const char* endpoint;
    Json changes;  // merged into a good body; null removes
    const char* message;
  } table[] = {
      {"/register", {{"tzn", nullptr}}, "tzn: missing, expected a string"},
      {"/register", {{"aid", "x"}}, "aid: expected a UUID, got \"x\""},
      {"/register", {{"sdkv", "1.2."}}, "sdkv: expected a version such as \"1.2.0\", got \"1.2.\""},
      {"/register", {{"conn", "4"}}, "conn: expected one of 2g|3g|4g, got \"4\""},
      {"/register", {{"cnst", 2}}, "cnst: expected an integer from -1 to 1, got 2"},
      {"/register", {{"gdpr", 1.5}}, "gdpr: expected an integer from -1 to 2, got 1.5"},
      {"/register", {{"ccpa", true}}, "ccpa: expected an integer from -1 to 2, got true"},
      {"/register", {{"idfa", "-"}}, "idfa: expected a UUID or the empty string, got \"-\""},
      {"/register", {{"dmod", "m"}}, "dmod: not expected here"},
      {"/bid/load",
       {{"recpm", UINT64_MAX}},
       "recpm: expected an integer from 0, got 1.8446744073709552e+19"},
      {"/bid/stats",
       {{"stats", Json::array()}},
       "stats: expected a list of at least one object, got []"},
      {"/bid/stats", {{"stats", {report(kSomeUUID), 5}}}, "stats[1]: expected an object, got 5"},
      {"/bid/stats", {{"stats", {shortReport}}}, "stats[0].fts: missing, expected true or false"},
      {"/bid/stats", {{"stats", {numberedFlag}}}, "stats[0].imp: expected true or false, got 1"},
      {"/track", {{"eid", 5}}, "eid: expected a string or null, got 5"},
  };
  for (const auto& row : table) {
    RawRequest request = goodRequest(row.endpoint);
    ASSERT_EQ(problemOf(request), "ok") << row.endpoint;
    Json body = Json::parse(request.body);
    body.merge_patch(row.changes);
    request.body = body.dump();
    EXPECT_EQ(problemOf(request), row.message);
    EXPECT_EQ(contract::Contract::current().checkRequest(row.endpoint, body).size(), 1u)
        << "reported more than once: " << row.message;
  }
}

TEST(SandboxRequest, ChecksMethodPathHeadersAndQuery) {
  const auto get = [](RawRequest& request, const char* version) {
    request.method = "GET";
    request.path = "/template";
    request.body.clear();
    request.query = {{"aid", kSomeUUID}, {"tmpl", "t"}, {"tver", version}};
  };
  const struct {
    std::function<void(RawRequest&)> spoil;
    const char* message;
  } table[] = {
      {[](auto& r) { r.path = "/nowhere"; }, "path: no endpoint /nowhere"},
      {[](auto& r) { r.method = "GET"; }, "method: expected POST, got GET"},
      {[](auto& r) { r.accept = "*/*"; }, "Accept: expected application/json, got \"*/*\""},
      {[](auto& r) { r.contentType = "text/plain"; },
       "Content-Type: expected application/json, got \"text/plain\""},
      {[](auto& r) { r.body = "{"; }, "body: expected an object, got no JSON"},
      {[](auto& r) { r.body = "[1]"; }, "body: expected an object, got [1]"},
      {[](auto& r) {
         r.query = {{"aid", kSomeUUID}};
       },
       "query: expected none with POST"},
      {[&](auto& r) { get(r, "3"); }, "ok"},
      {[&](auto& r) { get(r, "3"), r.body = "{}"; }, "body: expected none with GET"},
      {[&](auto& r) { get(r, "3x"); }, "tver: expected an integer, got \"3x\""},
      {[&](auto& r) { get(r, "3"), r.query.emplace("aid", "x"); }, "aid: given twice"},
  };
  for (const auto& row : table) {
    RawRequest request = goodRequest("/track");
    row.spoil(request);
    EXPECT_EQ(problemOf(request), row.message);
  }
}

/// The scenarios that kelvara-server-check cannot tell apart; its test plants the others.
TEST(SandboxScenario, SpoilsTheBytesAsItsNameSays) {
  const auto isHalf = [](const Reply& r) {
    const auto announced = r.head.find("Content-Length: ") + sizeof "Content-Length: " - 1;
    return std::stoul(r.head.substr(announced)) / 2 == r.body.size();
  };
  const auto isNoJson = [](const Reply& r) {
    return r.body.size() > 100 && r.json().is_discarded();
  };
  const struct {
    const char* scenario;
    int status;
    std::function<bool(const Reply&)> isAsNamed;
    bool isReset = false;
    std::size_t bids = 1;  // that the server makes
  } table[] = {
      {"not-ok", 200, [](auto& r) { return r.verdict() == "not ok"; }, false, 0},
      {"error:503:Busy now", 503, [](auto& r) { return r.verdict() == "503 Busy now"; }, false, 0},
      {"missing:data.plans.1.caph", 200,
       [](auto& r) {
         Json plans = r.json()["data"]["plans"];
         return plans[0].contains("caph") && !plans[1].contains("caph");
       }},
      {"missing:data.plans.9.caph", 200, [](auto& r) { return r.verdict() == "ok"; }},
      {"empty", 200, [](auto& r) { return r.body.empty(); }},
      {"reset", 0, [](auto& r) { return r.head.empty(); }, true},
      {"throttled", 200, [](auto& r) { return r.verdict() == "ok"; }},
      {"truncated", 200, isHalf},
      {"cut-head", 200, [](auto& r) { return r.body.empty(); }},
      {"reset-body", 200, isHalf, true},
      {"garbage-before", 0, [](auto& r) { return r.head.starts_with("\x16\x03"); }},
      {"garbage-within", 200, isNoJson},
      {"repeated-bytes", 200, isNoJson},
      {"repeated-answer", 200,
       [](auto& r) {
         const auto second = r.body.find("HTTP/1.1 200");
         return second != std::string::npos &&
                r.body.starts_with(r.body.substr(r.body.size() - second));
       }},
  };
  Server server;
  ASSERT_TRUE(server.start());
  const std::string uid = registeredUser(server.port());
  for (const auto& row : table) {
    SCOPED_TRACE(row.scenario);
    server.setScenario("/bid/init", Scenario::parse(row.scenario).value());
    const auto before = server.state().bids.size();
    const Reply reply = post(server.port(), "/api/v1/bid/init", bidRequest(uid));
    EXPECT_EQ(reply.isReset, row.isReset);
    EXPECT_EQ(reply.status, row.status);
    EXPECT_TRUE(row.isAsNamed(reply)) << reply.head << "\n\n" << reply.body;
    EXPECT_EQ(server.state().bids.size(), before + row.bids);
  }
}

TEST(SandboxScenario, HoldsForItsNumberOfRequestsAfterItsDelay) {
  Server server({.scenarios = {{"*", *Scenario::parse("error:404:Gone,delay:120,times:2")}}});
  ASSERT_TRUE(server.start());
  for (const char* expected : {"404 Gone", "404 Gone", "ok"})
    EXPECT_EQ(get(server.port(), initPath()).verdict(), expected);
  const auto logged = server.exchanges("/init");
  ASSERT_EQ(logged.size(), 3u) << "an endpoint's own 404 is one exchange";
  EXPECT_GE(logged[1].micros, 120'000);
  EXPECT_EQ(post(server.port(), "/api/v1/register", request("/register")).verdict(), "404 Gone");
  server.clearScenarios();
  EXPECT_EQ(post(server.port(), "/api/v1/register", request("/register")).verdict(), "ok");
}

TEST(SandboxScenario, RejectsInvalidText) {
  for (const char* text : {"none", "missing", "hang:data", "error:x", "delay:soon", "times:0",
                           "normal,delay:-1", "replace:time:{"})
    EXPECT_FALSE(Scenario::parse(text)) << text;
}

}  // namespace
}  // namespace kva::sandbox
