#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/Kelvara.h>
#include <Kelvara/api/Request.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/RequestLogger.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::Pair;

TEST(Completion, StopsTheProcessWhenItIsCalledTwiceOrDropped) {
  int calls = 0;
  Completion<int> once([&](int value) { calls += value; });
  Completion<int> moved(std::move(once));
  moved(1);
  EXPECT_EQ(calls, 1);
  EXPECT_DEATH(moved(1), "helpers_test.*called twice");
#ifndef NDEBUG
  EXPECT_DEATH(Completion<int>([](int) {}), "helpers_test.*dropped");
#endif
}

TEST(Runtime, SaysWhatToDoWhenThereIsNone) {
  EXPECT_DEATH(Kelvara::isInitialized(), "make a kva::gtk::Host");
}

TEST(Unescaped, UndoesEachEscapeInTurnTheBackslashLast) {
  const std::pair<std::string, std::string> cases[] = {
      {R"(\n\\\t)", "\n\\\t"},
      {R"(say \"hi\", it\'s)", "say \"hi\", it's"},
      {R"(a\0b\rc)", "a\0b\rc"s},
      // The tab is undone before the doubled backslash that would have protected it.
      {R"(C:\\temp)", "C:\\\temp"},
      {R"(\x \)", R"(\x \)"},
  };
  for (const auto& [escaped, plain] : cases) EXPECT_EQ(unescaped(escaped), plain) << escaped;
}

TEST(IsValidUUID, TakesTheHyphenatedFormInEitherCaseOnly) {
  for (const char* valid :
       {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"})
    EXPECT_TRUE(isValidUUID(valid)) << valid;
  for (const char* invalid :
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8-C36C-495A-93FC0-C247A3E6E5F"})
    EXPECT_FALSE(isValidUUID(invalid)) << invalid;
}

TEST(MillisecondsSince1970, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(millisecondsSince1970(1.0005), 1001);
  EXPECT_EQ(millisecondsSince1970(-1.0005), -1001);
  EXPECT_EQ(millisecondsSince1970(1700000000.4994), 1700000000499);
  EXPECT_DEATH(millisecondsSince1970(1e300), "64 bits");
}

TEST(Md5Value, IsLowerCaseHexadecimal) {
  EXPECT_EQ(md5Value(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5Value("a\0b"s), "70350f6027bce3713f6b76473084309b");
}

TEST(URL, IsReadAsBrowsersReadIt) {
  const struct {
    std::string text, absolute;  ///< the same when empty
    std::optional<std::string> host, query;
  } cases[] = {
      {"HTTP://u@A.B:80/%61%2b;x/?%61=%2b&x=1&#f?#", "", "A.B", "%61=%2b&x=1&"},
      {"mraid://%6fpen?url=https%3A%2F%2Fa.b", "", "%6fpen", "url=https%3A%2F%2Fa.b"},
      {"x://[::1]:9/", "", "::1", {}},
      {"intent://x#Intent;end?", "", "x", {}},
      {"https://a.b?u=//c@d:e", "", "a.b", "u=//c@d:e"},
      {"//a/b", "", "a", {}},
      {"?", "", {}, ""},
      {"about:blank", "", {}, {}},
      {"data:text/html,'a'", "", {}, {}},

      {"https://a.b/?s=300x250|320x50", "https://a.b/?s=300x250%7C320x50", "a.b",
       "s=300x250%7C320x50"},
      {R"(https://a.b/{c} \ü?{\}=100%&%zz"<>^`#|)",
       "https://a.b/%7Bc%7D%20/%C3%BC?%7B%5C%7D=100%25&%25zz%22%3C%3E%5E%60#%7C", "a.b",
       "%7B%5C%7D=100%25&%25zz%22%3C%3E%5E%60"},
      {"\n https://a\t.b/\r\nc\x01 ", "https://a.b/c", "a.b", {}},
      {R"(https:\\a.b\@c.d/)", "https://a.b/@c.d/", "a.b", {}},
      {"http://u:p@Bücher.example:80/",
       "http://u:p@xn--bcher-kva.example:80/",
       "xn--bcher-kva.example",
       {}},
      {"https://%C3%BC.de?ü", "https://xn--tda.de?%C3%BC", "xn--tda.de", "%C3%BC"},
      {"mraid://ü", "mraid://%C3%BC", "%C3%BC", {}},
      {"a b", "a%20b", {}, {}},
  };
  for (const auto& [text, absolute, host, query] : cases) {
    SCOPED_TRACE(text);
    const auto url = URL::parse(text);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->absoluteString(), absolute.empty() ? text : absolute);
    EXPECT_EQ(url->host(), host);
    EXPECT_EQ(url->query(), query);
    EXPECT_EQ(URL::parse(url->absoluteString()), url);
  }
  for (const std::string& unreadable :
       {""s, " \t\n"s, "http://["s, "http://[::1]x/"s, "http://a:port/"s, "http://a:65536/"s,
        "http://a b/"s, "http://a%2Fb/"s, "http://a\0b/"s, "http://a／b/"s, "http://a<b>/"s,
        "\xff"s, "http://a/\xc3"s})
    EXPECT_FALSE(URL::parse(unreadable)) << unreadable;
}

TEST(QueryDictionary, DecodesValuesAndStopsTheProcessOnWhatTheCheckRefuses) {
  const auto dictionary = [](const char* url) { return queryDictionary(*URL::parse(url)); };
  EXPECT_THAT(*dictionary("a://b?a=1&b=x%20y+z"), ElementsAre(Pair("a", "1"), Pair("b", "x y z")));
  EXPECT_THAT(*dictionary("a://b?n=1=2&%61=%2B&e=%ff&v=&v=2"),
              ElementsAre(Pair("%61", "+"), Pair("e", ""), Pair("n", "1"), Pair("v", "2")));
  EXPECT_FALSE(dictionary("a://b"));
  EXPECT_TRUE(hasWellFormedQuery(*URL::parse("a://b")));
  for (const char* malformed : {"a://b?", "a://b?x", "a://b?x=1&", "a://b?&x=1", "a://b?x=1&y"}) {
    EXPECT_FALSE(hasWellFormedQuery(*URL::parse(malformed))) << malformed;
    EXPECT_DEATH(dictionary(malformed), "without \"=\"") << malformed;
  }
}

struct LogTest : testing::Test {
  headless::Headless h;
  Runtime runtime{h.platform()};
};

TEST_F(LogTest, PrintsWhatItsLevelAsksForAndDumpsRequestsAtTheMostDetailedOneOnly) {
  Request get("/init", RequestMethod::get);
  get.parameters = {{"aid", "1"}, {"tver", std::nullopt}};
  const auto sayAll = [&] {
    Log::e("e");
    Log::i("i");
    Log::d(7);
    RequestLogger::log(get);
  };
  sayAll();
  EXPECT_THAT(h.output.lines(), ElementsAre("<KVA> [E]: e", "<KVA> [I]: i"));
  h.output.clear();
  Log::shared().setLogLevel(LogLevel::n);
  sayAll();
  EXPECT_THAT(h.output.lines(), ElementsAre());

  Log::shared().setLogLevel(LogLevel::d);
  Log::shared().setLogPrefix("me");
  sayAll();
  Request post("/track", RequestMethod::post);
  post.parameters = {{"hidden", "1"}};
  RequestLogger::log(post);
  post.body = {{"aid", "abc"}, {"eid", nullptr}, {"n", 3}, {"t", true}};
  RequestLogger::log(post);
  EXPECT_THAT(
      h.output.lines(),
      ElementsAre("me [E]: e", "me [I]: i", "me [D]: 7",
                  "Request: \n[-------------\nhttps://api.test/api/v1/init]\n"
                  "https://api.test/api/v1/init?aid=1\n[GET]\n------------- \n",
                  "Request: \n[-------------\nhttps://api.test/api/v1/track]\n[POST]\n"
                  "------------- \n",
                  "Request: \n[-------------\nhttps://api.test/api/v1/track]\n[POST]\n"
                  "[aid: String(abc), eid: nil, n: Int(3), t: Bool(true)]\n------------- \n"));
}

TEST_F(LogTest, TellsOfTextThatIsNoJsonWhereADictionaryIsWanted) {
  EXPECT_THAT(*convertToDictionary(R"({"en": "Play"})"), ElementsAre(Pair("en", "Play")));
  for (const char* otherShape : {R"({"en": 1})", "[]", "5"})
    EXPECT_FALSE(convertToDictionary(otherShape)) << otherShape;
  EXPECT_EQ(h.output.lines().size(), 0u);
  EXPECT_FALSE(convertToDictionary("{"));
  EXPECT_EQ(h.output.count("<KVA> [E]: convert json to dict: "), 1);
}

}  // namespace
}  // namespace kva
