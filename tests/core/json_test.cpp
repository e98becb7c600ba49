#include <Kelvara/core/Json.h>

#include <limits>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

TEST(Json, IntegersAreWholeNumbersOfSixtyFourBits) {
  const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
      {"5", 5},
      {"5.0", 5},
      {"-0.0", 0},
      {"5.5", {}},
      {"true", {}},
      {"\"5\"", {}},
      {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
      {"9223372036854775808", {}},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
      {"1e300", {}},
      {"9.3e18", {}},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(readJson<std::int64_t>(*parseJson(text)), expected) << text;
}

TEST(Json, RefusesWhatIsNoJsonWithoutCrashing) {
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  for (const std::string& text : {std::string(), std::string("{"), std::string("\"\xff\xfe\""),
                                  deep, std::string("{\"a\":1}x"), std::string("1e999999")})
    EXPECT_FALSE(parseJson(text)) << text.substr(0, 20);
}

TEST(Reader, RemembersTheFirstErrorAndSwallowsOptionalOnes) {
  const Json json = {{"text", "a"}, {"number", 1}, {"list", {1, "x"}}, {"none", nullptr}};
  Reader in(json);
  EXPECT_EQ(in.required<std::string>("text"), "a");
  EXPECT_FALSE(in.optional<std::string>("number"));
  EXPECT_FALSE(in.nullable<std::string>("none"));
  EXPECT_FALSE(in.optional<std::vector<std::string>>("list"));
  EXPECT_TRUE(in.finish(1));
  in.required<std::string>("number");
  in.required<std::string>("missing");
  const auto result = in.finish(1);
  ASSERT_FALSE(result);
  EXPECT_NE(result.error().localizedDescription().find("\"number\""), std::string::npos);
  EXPECT_FALSE(Reader(Json::array()).finish(1));
}

}  // namespace
}  // namespace kva
