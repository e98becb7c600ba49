#include "sandbox/Scenario.h"

#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Requests.h"

namespace kva::sandbox {
namespace {

using namespace std::chrono_literals;

struct Expectation {
  const char* scenario;
  Reply::End end;
  int status;
  std::function<bool(const Reply&)> body;
  bool carriedOut;  // whether the server made a bid
};

bool isWhole(const Reply& reply) { return reply.verdict() == "ok"; }

TEST(SandboxScenario, ShowsAClientTheFaultThatWasAskedFor) {
  using enum Reply::End;
  const Expectation table[] = {
      {"normal", closed, 200, isWhole, true},
      {"http-500", closed, 500, isWhole, true},
      {"no-fill", closed, 200,
       [](const Reply& r) {
         return isWhole(r) && r.json()["data"] == Json{{"plans", Json::array()}};
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
         return plans[0].contains("caph") && !plans[1].contains("caph") &&
                plans[1].contains("capd");
       },
       true},
      {"missing:data.plans.9.caph", closed, 200, isWhole, true},
      {"wrong-type:time", closed, 200, [](const Reply& r) { return r.json()["time"].is_string(); },
       true},
      {"replace:time:42", closed, 200, [](const Reply& r) { return r.json()["time"] == 42; }, true},
      {"wrong-type:data.bid", closed, 200,
       [](const Reply& r) { return r.json()["data"]["bid"].is_number(); }, true},
      {"wrong-type:data.plans", closed, 200,
       [](const Reply& r) { return r.json()["data"]["plans"].is_object(); }, true},
      {"malformed", closed, 200,
       [](const Reply& r) { return r.body.size() > 100 && r.json().is_discarded(); }, true},
      {"empty", closed, 200, [](const Reply& r) { return r.body.empty(); }, true},
      {"truncated", closed, 200,
       [](const Reply& r) {
         return r.body.size() > 50 &&
                r.head.contains("Content-Length: " + std::to_string(2 * r.body.size())) !=
                    r.head.contains("Content-Length: " + std::to_string(2 * r.body.size() + 1));
       },
       true},
      {"reset", reset, 0, [](const Reply& r) { return r.head.empty(); }, true},
      {"hang", silent, 0, [](const Reply& r) { return r.head.empty(); }, true},
  };
  Server server;
  ASSERT_TRUE(server.start());
  for (const Expectation& row : table) {
    SCOPED_TRACE(row.scenario);
    server.reset();
    std::string uid = registeredUser(server.port());
    auto scenario = Scenario::parse(row.scenario);
    ASSERT_TRUE(scenario) << scenario.error();
    ASSERT_TRUE(server.setScenario("/bid/init", *scenario));
    auto limit = row.end == silent ? 200ms : 10'000ms;
    Reply reply =
        exchangeBytes(server.port(), postBytes("/api/v1/bid/init", bidRequest(uid).dump()), limit);
    EXPECT_EQ(reply.end, row.end);
    EXPECT_EQ(reply.status, row.status);
    EXPECT_TRUE(row.body(reply)) << reply.head << "\n\n" << reply.body;
    EXPECT_EQ(server.state().bids.size(), row.carriedOut ? 1u : 0u);
    auto logged = server.exchanges("/bid/init");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].status, row.status);
    EXPECT_EQ(logged[0].response, reply.body);
  }
}

TEST(SandboxScenario, AnEndpointsOwnNotFoundIsOneExchange) {
  Server server({.scenarios = {{"/init", *Scenario::parse("error:404:Gone,times:1")}}});
  ASSERT_TRUE(server.start());
  EXPECT_EQ(get(server.port(), initPath()).verdict(), "404 Gone");
  EXPECT_EQ(server.exchanges("/init").size(), 1u);
}

TEST(SandboxScenario, HoldsForAsManyRequestsAsItSaysAfterItsDelay) {
  Server server({.scenarios = {{"*", *Scenario::parse("not-ok,delay:120,times:2")}}});
  ASSERT_TRUE(server.start());
  for (const char* expected : {"not ok", "not ok", "ok"}) {
    EXPECT_EQ(get(server.port(), initPath()).verdict(), expected);
  }
  auto logged = server.exchanges("/init");
  ASSERT_EQ(logged.size(), 3u);
  EXPECT_GE(logged[1].micros, 120'000);
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "not ok");
  server.clearScenarios();
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "ok");
}

TEST(SandboxScenario, RefusesWhatItCannotRead) {
  for (const char* text : {"none", "missing", "hang:data", "error:x", "delay:soon", "times:0",
                           "normal,delay:-1", "normal,,hang:"}) {
    EXPECT_FALSE(Scenario::parse(text)) << text;
  }
  auto read = Scenario::parse("error:404:Gone,times:3,delay:20");
  ASSERT_TRUE(read);
  auto again = Scenario::fromJson(read->toJson());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->toJson(), read->toJson());
}

}  // namespace
}  // namespace kva::sandbox
