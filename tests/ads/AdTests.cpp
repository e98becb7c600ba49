#include <limits>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/Template.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

using Ads = AdsTest;  // text that is no JSON goes to the log

Json adWith(const char* pointer, const Json& value) {
  Json json = adJson();
  json[Json::json_pointer(pointer)] = value;
  return json;
}

Json adWithout(const char* pointer) {
  return adJson().patch(Json::array({{{"op", "remove"}, {"path", pointer}}}));
}

TEST_F(Ads, RefusesWithoutAWellTypedRequiredMember) {
  for (const char* member : {"/bid", "/tmpl", "/crea", "/fls", "/crea/id", "/crea/adt",
                             "/crea/ctyp", "/crea/adur", "/crea/titl", "/crea/bton", "/crea/deta",
                             "/fls/0/id", "/fls/1/furl", "/fls/1/ornt", "/fls/0/ftyp"}) {
    EXPECT_FALSE(Ad::decode(adWithout(member))) << member;
    for (const Json& wrong : {Json(), Json(true), Json::object(), Json(5.5), Json::array({1})})
      EXPECT_FALSE(Ad::decode(adWith(member, wrong))) << member << " " << wrong;
  }
  for (const Json& noAd : {Json(), Json::array(), Json("ad"), Json(7)})
    EXPECT_FALSE(Ad::decode(noAd)) << noAd;
}

TEST_F(Ads, RefusesWhatNoCaseOrRangeHolds) {
  const std::pair<const char*, Json> cases[] = {
      {"/crea/adt", "video"}, {"/crea/adt", "Rewarded"},
      {"/crea/ctyp", "html"}, {"/fls/0/ftyp", "endCard"},
      {"/fls/0/furl", ""},    {"/fls/0/furl", "no url"},
      {"/crea/adur", "5"},    {"/crea/adur", std::numeric_limits<std::uint64_t>::max()},
      {"/crea/adur", 1e300},
  };
  for (const auto& [member, value] : cases)
    EXPECT_FALSE(Ad::decode(adWith(member, value))) << member << " " << value;
}

TEST_F(Ads, IsLenientWhereTheServerMayBe) {
  for (const Json& noLink : {Json(), Json(""), Json("no url"), Json(7), Json::object()}) {
    EXPECT_EQ(Ad::decode(adWith("/crea/curl", noLink))->creative.clickUrl, std::nullopt) << noLink;
    EXPECT_EQ(Ad::decode(adWith("/crea/icon", noLink))->creative.iconUrl, std::nullopt) << noLink;
  }
  EXPECT_EQ(Ad::decode(adWithout("/crea/curl"))->creative.clickUrl, std::nullopt);

  EXPECT_FALSE(Ad::decode(adWithout("/crea/shouldCareSafeArea"))->creative.shouldCareSafeArea);
  EXPECT_FALSE(Ad::decode(adWith("/crea/shouldCareSafeArea", 1))->creative.shouldCareSafeArea);

  for (const char* noTexts : {"", "{", "[]", "7", R"({"en": 1})"}) {
    const auto ad = Ad::decode(adWith("/crea/bton", noTexts));
    ASSERT_TRUE(ad) << noTexts;
    EXPECT_TRUE(ad->creative.buttonTexts.empty()) << noTexts;
    EXPECT_EQ(ad->creative.buttonTitle(), "") << noTexts;
  }

  EXPECT_FALSE(Ad::decode(adWith("/crea/adur", 0.0))->creative.isCloseButtonHidden());
  EXPECT_EQ(Ad::decode(adWith("/fls", Json::array()))->files, std::vector<CreativeFile>());
}

TEST_F(Ads, OfTwoFileListsTheLastCounts) {
  std::string text = adJson().dump();
  text.insert(1, R"("fls": "nonsense", )");
  const auto json = parseJson(text);
  ASSERT_TRUE(json);
  EXPECT_EQ(Ad::decode(*json)->files->size(), 2u);
}

TEST_F(Ads, CarriesEveryMemberAndEncodesTextsAsObjects) {
  Json expected = adJson();
  for (const char* texts : {"bton", "deta"})
    expected["crea"][texts] = Json::parse(expected["crea"][texts].get<std::string>());
  auto ad = *Ad::decode(adJson());
  EXPECT_EQ(ad.toJson(), expected);
  EXPECT_TRUE(ad.creative.preload());
  EXPECT_TRUE(ad.creative.isCloseButtonHidden());
  EXPECT_FALSE(Ad::decode(ad.toJson()));

  ad.files.reset();
  ad.creative.clickUrl.reset();
  ad.creative.iconUrl.reset();
  EXPECT_FALSE(ad.toJson().contains("fls"));
  EXPECT_FALSE(ad.toJson()["crea"].contains("curl"));
  EXPECT_FALSE(ad.toJson()["crea"].contains("icon"));
}

TEST(BidLoadResponses, NeedTheirPlansButNoBid) {
  const auto decode = [](const char* text) { return BidLoadResponse::decode(Json::parse(text)); };
  const auto full = decode(R"({"bid": "b", "plans": [
      {"plan": "p2", "capd": 4, "caph": 2, "ecpm": 2500},
      {"plan": "p1", "capd": 0, "caph": 0, "ecpm": 1}]})");
  ASSERT_TRUE(full);
  EXPECT_EQ(full->bidId, "b");
  EXPECT_EQ(full->plans, (std::vector<Plan>{{"p2", 4, 2, 2500}, {"p1", 0, 0, 1}}));

  EXPECT_EQ(decode(R"({"plans": []})")->bidId, std::nullopt);
  EXPECT_EQ(decode(R"({"bid": 7, "plans": []})")->bidId, std::nullopt);
  for (const char* bad : {R"({"bid": "b"})", R"({"bid": "b", "plans": null})", R"({"plans": {}})",
                          R"({"plans": [{"plan": "p", "capd": 0, "ecpm": 1}]})"})
    EXPECT_FALSE(decode(bad)) << bad;
}

TEST(Templates, DecodeWhatTheyEncode) {
  const Json json = Json::parse(
      R"({"tmpl": "t", "adt": "interstitial", "name": "n", "html": "<p>\u0000", "tver": 3})");
  EXPECT_EQ(Template::decode(json)->toJson(), json);

  for (const char* required : {"tmpl", "adt", "html", "tver"}) {
    Json without = json;
    without.erase(required);
    EXPECT_FALSE(Template::decode(without)) << required;
  }
  Json nameless = json;
  nameless.erase("name");
  EXPECT_EQ(Template::decode(nameless)->toJson(), nameless);
}

}  // namespace
}  // namespace kva
