#include <Kelvara/core/StringExtensions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::Pair;

TEST(Unescaped, UndoesEachEscapeInTurnTheBackslashLast) {
  const std::pair<std::string, std::string> cases[] = {
      {R"(\n\\\t)", "\n\\\t"},
      {R"(say \"hi\", it\'s)", "say \"hi\", it's"},
      {R"(a\0b\rc)", "a\0b\rc"s},
      // The tab is undone before the doubled backslash that would have protected it.
      {R"(C:\\temp)", "C:\\\temp"},
      {R"(\x \)", R"(\x \)"},
      {"", ""},
  };
  for (const auto& [escaped, plain] : cases) EXPECT_EQ(unescaped(escaped), plain) << escaped;
}

TEST(IsValidUUID, TakesTheHyphenatedFormInEitherCaseOnly) {
  for (const char* valid :
       {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"})
    EXPECT_TRUE(isValidUUID(valid)) << valid;
  for (const char* invalid :
       {"", "not-a-uuid", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "{621E1F8-C36C-495A-93FC-0C247A3E6E5F",
        "E621E1F8-C36C-495A-93FC0-C247A3E6E5F", " E621E1F8-C36C-495A-93FC-0C247A3E6E5F"})
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

TEST(URL, RefusesWhatNoBrowserWouldTake) {
  for (const char* valid : {"https://example.org/a?b=c#d", "mraid://open?url=x", "tel:+49", "a/b",
                            "kva://preloadComplete"})
    EXPECT_TRUE(URL::parse(valid)) << valid;
  for (const char* invalid : {"", "not a url", "http://[bad/", "http://a/\x01", "h\xc3\xa9"})
    EXPECT_FALSE(URL::parse(invalid)) << invalid;
  const auto url = URL::parse("mraid://Open?Url=%41");
  EXPECT_EQ(url->scheme(), "mraid");
  EXPECT_EQ(url->host(), "Open");
  EXPECT_EQ(url->query(), "Url=%41");
  EXPECT_FALSE(URL::parse("mraid:open")->host());
}

TEST(QueryDictionary, DecodesValuesAndLeavesNames) {
  const auto dictionary = [](const char* url) { return queryDictionary(*URL::parse(url)); };
  EXPECT_THAT(*dictionary("a://b?a=1&b=x%20y+z"), ElementsAre(Pair("a", "1"), Pair("b", "x y z")));
  EXPECT_THAT(*dictionary("a://b?n=1=2&%61=%fe&e=%ff&v="),
              ElementsAre(Pair("%61", ""), Pair("e", ""), Pair("n", "1"), Pair("v", "")));
  EXPECT_THAT(*dictionary("a://b?a=1&a=2"), ElementsAre(Pair("a", "2")));
  EXPECT_FALSE(dictionary("a://b"));
}

TEST(QueryDictionary, StopsTheProcessOnWhatTheCheckRefuses) {
  for (const char* malformed : {"a://b?", "a://b?x", "a://b?x=1&", "a://b?&x=1", "a://b?x=1&y"}) {
    EXPECT_FALSE(hasWellFormedQuery(*URL::parse(malformed))) << malformed;
    EXPECT_DEATH(queryDictionary(*URL::parse(malformed)), "without \"=\"") << malformed;
  }
  EXPECT_TRUE(hasWellFormedQuery(*URL::parse("a://b")));
}

TEST(ConvertToDictionary, LogsOnlyTextThatIsNoJson) {
  headless::Headless h;
  Runtime runtime(h.platform());
  EXPECT_THAT(*convertToDictionary(R"({"en": "Play"})"), ElementsAre(Pair("en", "Play")));
  for (const char* otherShape : {R"({"en": 1})", "[]", "5", R"({"en": null})"})
    EXPECT_FALSE(convertToDictionary(otherShape)) << otherShape;
  EXPECT_EQ(h.output.lines().size(), 0u);
  EXPECT_FALSE(convertToDictionary("{"));
  EXPECT_EQ(h.output.count("<KVA> [E]: convert json to dict: "), 1);
}

}  // namespace
}  // namespace kva
