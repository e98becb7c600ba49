#include <limits>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/api/Request.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/CurrentUser.h>
#include <platform/headless/Headless.h>
#include <support/AdRecorder.h>

namespace kva {
namespace {

using headless::answer;
using headless::envelope;
using testing::ElementsAre, testing::Pair;

class RequestManagerTest : public testing::Test {
 protected:
  /// Uploads reports and returns "ok", or the error as "code message".
  std::string upload(URLSession::Outcome outcome) {
    h.server.reply("/bid/stats", std::move(outcome));
    std::string text;
    RequestManager::uploadReports({{"aid", "a"}}, [&](Result<bool> result) {
      text = result ? "ok" : test::describe(result.error());
    });
    h.time.advance(1);
    return text;
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
};

TEST_F(RequestManagerTest, HasABodyForAPostOnlyAndAbortsWithoutAURL) {
  Request get("/template", RequestMethod::get);
  get.body = {{"ignored", true}};
  EXPECT_FALSE(get.urlRequest().body);
  get.parameters["c"] = std::string("\xff");  // g++ 12 warns of an overlap without it
  EXPECT_DEATH(get.urlRequest(), "Unexpectedly found nil while unwrapping an Optional value");

  Request post("/track", RequestMethod::post);
  post.body = {{"a", 1}};
  EXPECT_EQ(asText(*post.urlRequest().body), "{\n  \"a\": 1\n}");
  post.body = {{"a", "\xff"}};
  EXPECT_FALSE(post.urlRequest().body);
  EXPECT_EQ(h.output.count("<KVA> [E]: Request body parse: "), 1);
}

TEST_F(RequestManagerTest, EncodesTheTextsOfHostAndServerInAQuery) {
  const std::pair<const char*, const char*> cases[] = {
      {"com.example.game-1_0~/:@,'()*$!?", "com.example.game-1_0~/:@,'()*$!?"},
      {"1&aid=x (a+b;c#d%41|ü\xff)", "1%26aid%3Dx%20(a%2Bb%3Bc%23d%2541%7C%C3%BC%FF)"},
  };
  for (const auto& [value, encoded] : cases) {
    RequestManager::startSDK({{"appv", value}}, [](auto) {});
    RequestManager::getTemplate("a", value, 3, [](auto) {});
    EXPECT_THAT(h.server.lastRequest("/init").query, ElementsAre(Pair("appv", encoded)));
    EXPECT_THAT(h.server.lastRequest("/template").query,
                ElementsAre(Pair("aid", "a"), Pair("tmpl", encoded), Pair("tver", "3")));
  }
  h.time.advance(1);
}

TEST_F(RequestManagerTest, CompletesWithThePayloadOrTheErrorOfEachEnvelope) {
  const char* const noNetwork = "-1 Unknown network error.";
  const std::pair<URLSession::Outcome, const char*> cases[] = {
      {answer(R"({"ok":true,"err":null,"data":"x","time":0,"more":[]})"), "ok"},
      {answer(R"({"ok":true,"data":null,"time":5})"), noNetwork},
      {answer(R"({"ok":1,"err":null,"data":null,"time":5})"), noNetwork},
      {answer(R"({"ok":true,"err":null,"data":null,"time":5.5})"), noNetwork},
      {answer(R"({"ok":true,"err":null,"data":{},"time":5})"), noNetwork},
      {answer(R"({"ok":true,"err":{"code":1},"data":null,"time":5})"), noNetwork},
      {answer(""), noNetwork},
      {URLSession::Outcome{}, noNetwork},
      {answer(R"({"ok":false,"err":null,"data":null,"time":0})"), "-1 Unknown parse error."},
      {answer(R"({"ok":false,"err":{"code":42,"msg":"x"},"data":null,"time":0})"), "42 x"},
      {{.data = toBytes("junk"), .error = Error("KVAURLErrorDomain", 1005, "lost")}, "1005 lost"},
  };
  for (const auto& [outcome, text] : cases)
    EXPECT_EQ(upload(outcome), text) << (outcome.data ? asText(*outcome.data) : "no data");
}

TEST_F(RequestManagerTest, LogsAnUnknownUserOutBeforeTheCompletionAndSetsAPostsTimeAfterIt) {
  const auto user = [&] { return h.defaults.get<std::string>(SDKHelper::UserDefaultKeys::userId); };
  const auto hasTime = [&] { return AnalyticsManager::shared().serverTime() < 2000; };
  h.defaults.set(SDKHelper::UserDefaultKeys::userId, std::string("first"));
  h.server.reply("/template", envelope("null", 5));
  RequestManager::getTemplate("a", "t", {}, [](auto) {});
  h.time.advance(1);
  EXPECT_FALSE(hasTime()) << "the reply to a get sets no time";
  h.server.reply("/register", envelope(R"({"uid":"second"})"));
  h.server.reply("/bid/stats", headless::errorEnvelope(404, "who?", 5));
  bool isCompleted = false;
  RequestManager::uploadReports({}, [&](Result<bool> result) {
    isCompleted = true;
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), 404);
    EXPECT_EQ(user(), std::nullopt);
    EXPECT_FALSE(hasTime());
  });
  h.time.advance(1);
  EXPECT_TRUE(isCompleted);
  EXPECT_EQ(user(), "second");
  EXPECT_TRUE(hasTime());
}

TEST_F(RequestManagerTest, HasAnErrorForEachCallWithoutItsPayload) {
  std::vector<std::string> messages;
  const auto record = [&](const auto& result) {
    messages.push_back(result ? "ok" : result.error().localizedDescription());
  };
  for (const char* path : {"/init", "/register", "/update", "/bid/init", "/bid/load", "/template",
                           "/track", "/bid/lost"})
    h.server.reply(path, envelope("null"));
  RequestManager::startSDK({}, record);
  RequestManager::register_(currentUser(), record);
  RequestManager::update(currentUser(), "u", record);
  RequestManager::loadBid({}, record);
  RequestManager::loadAd("a", KVABidResponse("p", "b", 1), 1.5, record);
  RequestManager::getTemplate("a", "t", {}, record);
  RequestManager::trackCampaign({}, record);
  RequestManager::sendLost("b", 1.2349, record);
  h.time.advance(1);
  EXPECT_THAT(messages,
              ElementsAre("No application.", "Unknown register error.", "Unknown update error.",
                          "Unknown init error.", "Unknown bid load error.",
                          "Unknown template error.", "Unknown campaign track error.", "ok"));
  EXPECT_THAT(
      h.server.lastRequest("/bid/load").headers,
      ElementsAre(Pair("Accept", "application/json"), Pair("Content-Type", "application/json")));
  for (const double price : {std::numeric_limits<double>::infinity(), std::nan(""), 1e16})
    EXPECT_DEATH(RequestManager::sendLost("b", price, record), "price");
}

}  // namespace
}  // namespace kva
