#include <Kelvara/core/Log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelvara/api/Request.h>
#include <Kelvara/core/RequestLogger.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre;

class LogTest : public testing::Test {
 protected:
  headless::Headless h;
  Runtime runtime{h.platform()};
};

TEST_F(LogTest, PrintsWhatItsLevelAsksFor) {
  const std::pair<LogLevel, std::vector<std::string>> cases[] = {
      {LogLevel::n, {}},
      {LogLevel::e, {"<KVA> [E]: a"}},
      {LogLevel::i, {"<KVA> [E]: a", "<KVA> [I]: b"}},
      {LogLevel::d, {"<KVA> [E]: a", "<KVA> [I]: b", "<KVA> [D]: 7"}},
  };
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::i);
  for (const auto& [level, expected] : cases) {
    h.output.clear();
    Log::shared().setLogLevel(level);
    Log::e("a");
    Log::i("b");
    Log::d(7);
    EXPECT_EQ(h.output.lines(), expected);
  }
  Log::shared().setLogPrefix("me");
  Log::i("x");
  EXPECT_EQ(h.output.lines().back(), "me [I]: x");
  EXPECT_FALSE(logLevelFromRawValue(4));
}

TEST_F(LogTest, DumpsRequestsAtTheMostDetailedLevelOnly) {
  Request get("/init", RequestMethod::get);
  get.parameters = {{"aid", "1"}, {"tver", std::nullopt}};
  RequestLogger::log(get);
  EXPECT_TRUE(h.output.lines().empty());

  Log::shared().setLogLevel(LogLevel::d);
  RequestLogger::log(get);
  Request post("/track", RequestMethod::post);
  RequestLogger::log(post);
  post.parameters = {{"hidden", "1"}};
  post.body = {{"aid", "abc"}, {"eid", nullptr}, {"n", 3}, {"t", true}};
  RequestLogger::log(post);
  EXPECT_THAT(
      h.output.lines(),
      ElementsAre("Request: \n[-------------\nhttps://api.test/api/v1/init]\n"
                  "https://api.test/api/v1/init?aid=1\n[GET]\n------------- \n",
                  "Request: \n[-------------\nhttps://api.test/api/v1/track]\n[POST]\n"
                  "------------- \n",
                  "Request: \n[-------------\nhttps://api.test/api/v1/track]\n[POST]\n"
                  "[aid: String(abc), eid: nil, n: Int(3), t: Bool(true)]\n------------- \n"));
}

}  // namespace
}  // namespace kva
