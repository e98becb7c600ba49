#include "sandbox/Scenario.h"

#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Client.h"

namespace kva::sandbox {
namespace {

using namespace std::chrono_literals;

TEST(SandboxScenario, ShowsAClientTheFaultThatWasAskedFor) {
  using enum Reply::End;
  const auto isWhole = [](const Reply& r) { return r.verdict() == "ok"; };
  const struct {
    const char* scenario;
    Reply::End end;
    int status;
    std::function<bool(const Reply&)> body;
    bool carriedOut;  // whether the server made a bid
  } table[] = {
      {"http-500", closed, 500, isWhole, true},
      {"no-fill", closed, 200,
       [](const Reply& r) {
         return r.json()["data"] == Json{{"plans", Json::array()}};
       },
       false},
      {"error:503:Busy now", closed, 503,
       [](const Reply& r) { return r.verdict() == "503 Busy now"; }, false},
      {"error:42", closed, 200,
       [](const Reply& r) { return r.verdict() == "42 Internal server error."; }, false},
      {"not-ok", closed, 200, [](const Reply& r) { return r.verdict() == "not ok"; }, false},
      {"missing:err", closed, 200, [](const Reply& r) { return !r.json().contains("err"); }, true},
      {"missing:data.plans.1.caph", closed, 200,
       [](const Reply& r) {
         Json plans = r.json()["data"]["plans"];
         return plans[0].contains("caph") && !plans[1].contains("caph");
       },
       true},
      {"missing:data.plans.9.caph", closed, 200, isWhole, true},
      {"wrong-type:time", closed, 200, [](const Reply& r) { return r.json()["time"].is_string(); },
       true},
      {"wrong-type:data.plans", closed, 200,
       [](const Reply& r) { return r.json()["data"]["plans"].is_object(); }, true},
      {"replace:time:42", closed, 200, [](const Reply& r) { return r.json()["time"] == 42; }, true},
      {"malformed", closed, 200,
       [](const Reply& r) { return r.body.size() > 100 && r.json().is_discarded(); }, true},
      {"empty", closed, 200, [](const Reply& r) { return r.body.empty(); }, true},
      {"truncated", closed, 200,
       [](const Reply& r) {
         const auto announced = r.head.find("Content-Length: ") + sizeof "Content-Length: " - 1;
         return std::stoul(r.head.substr(announced)) / 2 == r.body.size();
       },
       true},
      {"reset", reset, 0, [](const Reply& r) { return r.head.empty(); }, true},
      {"hang", silent, 0, [](const Reply& r) { return r.head.empty(); }, true},
  };
  Server server;
  ASSERT_TRUE(server.start());
  for (const auto& row : table) {
    SCOPED_TRACE(row.scenario);
    server.reset();
    const std::string uid = registeredUser(server.port());
    const auto scenario = Scenario::parse(row.scenario);
    ASSERT_TRUE(scenario) << scenario.error();
    ASSERT_TRUE(server.setScenario("/bid/init", *scenario));
    const Reply reply =
        exchangeBytes(server.port(), postBytes("/api/v1/bid/init", bidRequest(uid).dump()),
                      row.end == silent ? 200ms : 10'000ms);
    EXPECT_EQ(reply.end, row.end);
    EXPECT_EQ(reply.status, row.status);
    EXPECT_TRUE(row.body(reply)) << reply.head << "\n\n" << reply.body;
    EXPECT_EQ(server.state().bids.size(), row.carriedOut ? 1u : 0u);
    const auto logged = server.exchanges("/bid/init");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].status, row.status);
    EXPECT_EQ(logged[0].response, reply.body);
  }
}

TEST(SandboxScenario, HoldsForAsManyRequestsAsItSaysAfterItsDelay) {
  Server server({.scenarios = {{"*", *Scenario::parse("error:404:Gone,delay:120,times:2")}}});
  ASSERT_TRUE(server.start());
  for (const char* expected : {"404 Gone", "404 Gone", "ok"})
    EXPECT_EQ(get(server.port(), initPath()).verdict(), expected);
  const auto logged = server.exchanges("/init");
  ASSERT_EQ(logged.size(), 3u) << "an endpoint's own 404 is one exchange";
  EXPECT_GE(logged[1].micros, 120'000);
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "404 Gone");
  server.clearScenarios();
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "ok");
}

TEST(SandboxScenario, RefusesWhatItCannotRead) {
  for (const char* text : {"none", "missing", "hang:data", "error:x", "delay:soon", "times:0",
                           "normal,delay:-1", "replace:time:{"})
    EXPECT_FALSE(Scenario::parse(text)) << text;
}

}  // namespace
}  // namespace kva::sandbox
