#include "sandbox/Scenario.h"

#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Client.h"

namespace kva::sandbox {
namespace {

using namespace std::chrono_literals;

TEST(SandboxScenario, SpoilsTheAnswerAsItsNameSays) {
  using enum Reply::End;
  enum class Bid { made, none };
  using enum Bid;
  const auto is = [](const char* verdict) {
    return [=](const Reply& r) { return r.verdict() == verdict; };
  };
  const auto isEmpty = [](const Reply& r) { return r.body.empty(); };
  const auto noReply = [](const Reply& r) { return r.head.empty(); };
  const auto isHalf = [](const Reply& r) {
    const auto announced = r.head.find("Content-Length: ") + sizeof "Content-Length: " - 1;
    return std::stoul(r.head.substr(announced)) / 2 == r.body.size();
  };
  const auto isNoJson = [](const Reply& r) {
    return r.body.size() > 100 && r.json().is_discarded();
  };
  const struct {
    const char* scenario;
    Reply::End end;
    int status;
    std::function<bool(const Reply&)> isAsNamed;
    Bid bid;  // whether the server carried out the request
  } table[] = {
      {"http-500", closed, 500, is("ok"), made},
      {"no-fill", closed, 200,
       [](auto& r) {
         return r.json()["data"] == Json{{"plans", Json::array()}};
       },
       none},
      {"error:503:Busy now", closed, 503, is("503 Busy now"), none},
      {"error:42", closed, 200, is("42 Internal server error."), none},
      {"not-ok", closed, 200, is("not ok"), none},
      {"missing:err", closed, 200, [](auto& r) { return !r.json().contains("err"); }, made},
      {"missing:data.plans.1.caph", closed, 200,
       [](auto& r) {
         Json plans = r.json()["data"]["plans"];
         return plans[0].contains("caph") && !plans[1].contains("caph");
       },
       made},
      {"missing:data.plans.9.caph", closed, 200, is("ok"), made},
      {"wrong-type:time", closed, 200, [](auto& r) { return r.json()["time"].is_string(); }, made},
      {"wrong-type:data.plans", closed, 200,
       [](auto& r) { return r.json()["data"]["plans"].is_object(); }, made},
      {"replace:time:42", closed, 200, [](auto& r) { return r.json()["time"] == 42; }, made},
      {"malformed", closed, 200, isNoJson, made},
      {"empty", closed, 200, isEmpty, made},
      {"reset", reset, 0, noReply, made},
      {"hang", silent, 0, noReply, made},
      {"throttled", closed, 200, is("ok"), made},
      {"truncated", closed, 200, isHalf, made},
      {"cut-head", closed, 200, isEmpty, made},
      {"reset-body", reset, 200, isHalf, made},
      {"garbage-before", closed, 0, [](auto& r) { return r.head.starts_with("\x16\x03"); }, made},
      {"garbage-within", closed, 200, isNoJson, made},
      {"repeated-bytes", closed, 200, isNoJson, made},
      {"repeated-answer", closed, 200,
       [](auto& r) {
         const auto second = r.body.find("HTTP/1.1 200");
         return second != std::string::npos &&
                r.body.starts_with(r.body.substr(r.body.size() - second));
       },
       made},
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
    EXPECT_TRUE(row.isAsNamed(reply)) << reply.head << "\n\n" << reply.body;
    EXPECT_EQ(server.state().bids.size(), row.bid == made ? 1u : 0u);
    EXPECT_EQ(server.exchanges("/bid/init").size(), 1u);
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
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "404 Gone");
  server.clearScenarios();
  EXPECT_EQ(post(server.port(), "/api/v1/register", userRecord()).verdict(), "ok");
}

TEST(SandboxScenario, RejectsInvalidText) {
  for (const char* text : {"none", "missing", "hang:data", "error:x", "delay:soon", "times:0",
                           "normal,delay:-1", "replace:time:{"})
    EXPECT_FALSE(Scenario::parse(text)) << text;
}

}  // namespace
}  // namespace kva::sandbox
