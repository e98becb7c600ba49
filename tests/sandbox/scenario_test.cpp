#include "sandbox/Scenario.h"

#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Client.h"

namespace kva::sandbox {
namespace {

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
      {"http-500", 500, [](auto& r) { return r.verdict() == "ok"; }},
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
