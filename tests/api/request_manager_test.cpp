#include <Kelvara/api/RequestManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

#include <Kelvara/api/Request.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using headless::envelope;
using headless::errorEnvelope;
using testing::ElementsAre;
using testing::Pair;

class RequestManagerTest : public testing::Test {
 protected:
  /// Uploads reports against this reply; "ok", or the error as "code message".
  std::string upload(URLSession::Outcome outcome) {
    h.server.reply("/bid/stats", std::move(outcome));
    std::string heard;
    RequestManager::uploadReports({{"aid", "a"}}, [&](Result<bool> result) {
      heard = result ? "ok"
                     : std::to_string(result.error().code()) + " " +
                           result.error().localizedDescription();
      timeOffsetInCompletion = AnalyticsManager::shared().serverTime() - deviceTime();
    });
    h.time.advance(1);
    return heard;
  }
  std::int64_t deviceTime() { return static_cast<std::int64_t>(h.time.now() * 1000); }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::int64_t timeOffsetInCompletion = 0;
};

TEST_F(RequestManagerTest, BuildsUrlsFromTheParametersThatArePresent) {
  Request request("/template", RequestMethod::get);
  request.parameters = {{"a", "1"}, {"b", std::nullopt}, {"c", "x"}};
  request.body = {{"ignored", true}};
  EXPECT_EQ(request.urlRequest().url.absoluteString(), "https://api.test/api/v1/template?a=1&c=x");
  EXPECT_FALSE(request.urlRequest().body);
  request.parameters["c"] = "a space";
  EXPECT_DEATH(request.urlRequest(), "Unexpectedly found nil while unwrapping an Optional value");
}

TEST_F(RequestManagerTest, PostsPrettyJsonAndGoesOnWithoutABodyThatCannotBeWritten) {
  Request request("/track", RequestMethod::post);
  EXPECT_EQ(asText(*request.urlRequest().body), "{}");
  request.body = {{"a", 1}};
  EXPECT_EQ(asText(*request.urlRequest().body), "{\n  \"a\": 1\n}");
  request.body = {{"a", "\xff"}};
  EXPECT_FALSE(request.urlRequest().body);
  EXPECT_EQ(h.output.count("<KVA> [E]: Request body parse: "), 1);
}

TEST_F(RequestManagerTest, UnwrapsEveryEnvelopeAsItsRulesSay) {
  const auto reply = [](const char* body) { return headless::answer(body); };
  const std::pair<URLSession::Outcome, const char*> cases[] = {
      {reply(R"({"ok":true,"err":null,"data":null,"time":0})"), "ok"},
      {reply(R"({"ok":true,"err":null,"data":"x","time":0,"more":[]})"), "ok"},
      {reply(R"({"ok":true,"data":null,"time":5})"), "-1 Unknown network error."},
      {reply(R"({"ok":true,"err":null,"time":5})"), "-1 Unknown network error."},
      {reply(R"({"ok":1,"err":null,"data":null,"time":5})"), "-1 Unknown network error."},
      {reply(R"({"ok":true,"err":null,"data":null,"time":5.5})"), "-1 Unknown network error."},
      {reply(R"({"ok":true,"err":null,"data":{},"time":5})"), "-1 Unknown network error."},
      {reply(R"({"ok":true,"err":{"code":1},"data":null,"time":5})"), "-1 Unknown network error."},
      {reply("[]"), "-1 Unknown network error."},
      {reply(""), "-1 Unknown network error."},
      {URLSession::Outcome{}, "-1 Unknown network error."},
      {reply(R"({"ok":false,"err":null,"data":null,"time":0})"), "-1 Unknown parse error."},
      {reply(R"({"ok":false,"err":{"code":42,"msg":"x"},"data":null,"time":0})"), "42 x"},
      {{.data = toBytes("junk"), .error = Error("KVAURLErrorDomain", 1005, "lost")}, "1005 lost"},
  };
  for (const auto& [outcome, heard] : cases)
    EXPECT_EQ(upload(outcome), heard) << (outcome.data ? asText(*outcome.data) : "no data");
}

TEST_F(RequestManagerTest, RecordsTheServersTimeAfterTheCompletionOfAPostOnly) {
  Log::shared().setLogLevel(LogLevel::d);
  const std::int64_t ahead = deviceTime() + 3'600'000;
  EXPECT_EQ(upload(headless::answer(envelope("null", ahead))), "ok");
  EXPECT_EQ(timeOffsetInCompletion, 0) << "the completion came after the clock was set";
  EXPECT_NEAR(static_cast<double>(AnalyticsManager::shared().serverTime() - deviceTime()), 3.6e6,
              2000);
  EXPECT_EQ(h.output.count("<KVA> [D]: Server time: " + std::to_string(ahead)), 1);

  h.server.reply("/template", envelope("null", 5));
  RequestManager::getTemplate("a", "t", {}, [](auto) {});
  h.time.advance(1);
  EXPECT_EQ(h.output.count("Server time: "), 1) << "a get reply's time was taken";
}

TEST_F(RequestManagerTest, LogsTheUserOutWhenTheServerDoesNotKnowThem) {
  h.server.reply("/register", envelope(R"({"uid":"first"})"));
  AnalyticsManager::shared().register_([](auto) {});
  h.time.advance(1);
  ASSERT_TRUE(AnalyticsManager::shared().isRegistered());
  h.server.reply("/bid/stats", errorEnvelope(404, "who?", 7));
  std::optional<bool> registeredInCompletion;
  RequestManager::uploadReports({{"aid", "a"}}, [&](Result<bool> result) {
    EXPECT_EQ(result.error().code(), 404);
    registeredInCompletion = AnalyticsManager::shared().isRegistered();
  });
  h.server.reply("/register", envelope(R"({"uid":"second"})"), 0.5);
  h.time.advance(0.1);
  EXPECT_EQ(registeredInCompletion, false);
  h.time.advance(1);
  EXPECT_EQ(AnalyticsManager::shared().userId(), "second");
}

TEST_F(RequestManagerTest, SendsEachCallWhereAndAsTheServerExpects) {
  const KVABidResponse bid("plan-1", "bid-1", 2);
  RequestManager::sendLost("bid-1", 1.2349, [](auto) {});
  RequestManager::loadAd("app", bid, 0.0005, [](auto) {});
  RequestManager::getTemplate("app", "t1", {}, [](auto) {});
  RequestManager::getTemplate("app", "t1", 3, [](auto) {});
  h.time.advance(1);
  EXPECT_EQ(h.server.lastRequest("/bid/lost").json(), (Json{{"bid", "bid-1"}, {"lecpm", 1234}}));
  EXPECT_EQ(h.server.lastRequest("/bid/load").json(),
            (Json{{"aid", "app"}, {"bid", "bid-1"}, {"plan", "plan-1"}, {"recpm", 0}}));
  EXPECT_THAT(
      h.server.lastRequest("/bid/load").headers,
      ElementsAre(Pair("Accept", "application/json"), Pair("Content-Type", "application/json")));
  const auto templates = h.server.requests("/template");
  EXPECT_THAT(templates[0].query, ElementsAre(Pair("aid", "app"), Pair("tmpl", "t1")));
  EXPECT_THAT(templates[1].query, testing::Contains(Pair("tver", "3")));
  for (const double price : {std::numeric_limits<double>::infinity(), std::nan(""), 1e16})
    EXPECT_DEATH(RequestManager::sendLost("b", price, [](auto) {}), "price");
}

TEST_F(RequestManagerTest, NamesTheFailureOfEachCallThatNeedsAPayload) {
  std::vector<std::string> messages;
  const auto record = [&](const auto& result) {
    messages.push_back(result ? "ok" : result.error().localizedDescription());
  };
  for (const char* path :
       {"/register", "/update", "/bid/init", "/bid/load", "/template", "/track", "/bid/lost"})
    h.server.reply(path, envelope("null"));
  const User user;
  RequestManager::register_(user, record);
  RequestManager::update(user, "u", record);
  RequestManager::loadBid({}, record);
  RequestManager::loadAd("a", KVABidResponse("p", "b", 1), 1, record);
  RequestManager::getTemplate("a", "t", {}, record);
  RequestManager::trackCampaign({}, record);
  RequestManager::sendLost("b", 1, record);
  h.time.advance(1);
  EXPECT_THAT(messages,
              ElementsAre("Unknown register error.", "Unknown update error.", "Unknown init error.",
                          "Unknown bid load error.", "Unknown template error.",
                          "Unknown campaign track error.", "ok"));
  EXPECT_EQ(h.server.lastRequest("/update").json()["uid"], "u");
}

}  // namespace
}  // namespace kva
