#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/api/Request.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/RequestLogger.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using namespace std::string_literals;
using testing::ElementsAre, testing::Pair;

TEST(Completion, AbortsWhenCalledTwiceOrDropped) {
  Completion<int> once([](int) {});
  Completion<int> moved(std::move(once));
  moved(1);
  EXPECT_DEATH(moved(1), "helpers_test.*called twice");
#ifndef NDEBUG
  EXPECT_DEATH(Completion<int>([](int) {}), "helpers_test.*dropped");
#endif
}

TEST(URL, IsParsedAsInBrowsers) {
  const struct {
    std::string text, absolute;  ///< empty: the same
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

      {"https://a.b/?s=300x250|320x50", "https://a.b/?s=300x250%7C320x50", "a.b",
       "s=300x250%7C320x50"},
      {R"(https://a.b/{c} \ü?{\}=100%&%zz"<>^`#|)",
       "https://a.b/%7Bc%7D%20/%C3%BC?%7B%5C%7D=100%25&%25zz%22%3C%3E%5E%60#%7C", "a.b",
       "%7B%5C%7D=100%25&%25zz%22%3C%3E%5E%60"},
      {"\n https://a\t.b/\r\nc\x01 ", "https://a.b/c", "a.b", {}},
      {R"(https:\\a.b\@c.d/)", "https://a.b/@c.d/", "a.b", {}},
      {"https://u:p@%C3%BC.de:80?ü", "https://u:p@xn--tda.de:80?%C3%BC", "xn--tda.de", "%C3%BC"},
      {"https://ü.de/", "https://xn--tda.de/", "xn--tda.de", {}},
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

TEST(QueryDictionary, DecodesTheLastValueOfEachKeyUpToASecondSign) {
  EXPECT_THAT(*queryDictionary(*URL::parse("a://b?n=1=2&%61=x%20y+%2B&e=%ff&v=&v=2")),
              ElementsAre(Pair("%61", "x y +"), Pair("e", ""), Pair("n", "1"), Pair("v", "2")));
  EXPECT_FALSE(queryDictionary(*URL::parse("a://b")));
}

TEST(Log, PrintsTheLinesOfItsLevelAndDumpsRequestsAtTheLastLevel) {
  headless::Headless h;
  Runtime runtime{h.platform()};
  Request get("/init", RequestMethod::get);
  get.parameters = {{"aid", "1"}, {"tver", std::nullopt}};
  const auto logAll = [&] {
    Log::e("e");
    Log::i("i");
    Log::d(7);
    RequestLogger::log(get);
  };
  logAll();
  EXPECT_THAT(h.output.lines(), ElementsAre("<KVA> [E]: e", "<KVA> [I]: i"));
  h.output.clear();
  Log::shared().setLogLevel(LogLevel::n);
  logAll();
  EXPECT_THAT(h.output.lines(), ElementsAre());

  Log::shared().setLogLevel(LogLevel::d);
  Log::shared().setLogPrefix("me");
  logAll();
  Request post("/track", RequestMethod::post);
  post.parameters = {{"hidden", "1"}};
  post.body = {{"aid", "abc"}, {"eid", nullptr}, {"n", 3}, {"t", true}};
  RequestLogger::log(post);
  EXPECT_THAT(
      h.output.lines(),
      ElementsAre("me [E]: e", "me [I]: i", "me [D]: 7",
                  "Request: \n[-------------\nhttps://api.test/api/v1/init]\n"
                  "https://api.test/api/v1/init?aid=1\n[GET]\n------------- \n",
                  "Request: \n[-------------\nhttps://api.test/api/v1/track]\n[POST]\n"
                  "[aid: String(abc), eid: nil, n: Int(3), t: Bool(true)]\n------------- \n"));
}

}  // namespace
}  // namespace kva
