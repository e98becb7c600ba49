#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/Template.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

class Ads : public AdsTest {  // text that is no JSON goes to the log
 protected:
  static Result<Ad> adWith(const char* member, const Json& value) {
    Json json = adJson();
    json[Json::json_pointer(member)] = value;
    return Ad::decode(json);
  }
  static Result<Ad> adWithout(const char* member) {
    return Ad::decode(adJson().patch(Json::array({{{"op", "remove"}, {"path", member}}})));
  }
};

TEST_F(Ads, NeedEachRequiredMemberWellTypedAndOfAKnownCase) {
  for (const char* member : {"/bid", "/tmpl", "/crea", "/fls", "/crea/id", "/crea/adt",
                             "/crea/ctyp", "/crea/adur", "/crea/titl", "/crea/bton", "/crea/deta",
                             "/fls/0/id", "/fls/1/furl", "/fls/1/ornt", "/fls/0/ftyp"}) {
    EXPECT_FALSE(adWithout(member)) << member;
    EXPECT_FALSE(adWith(member, Json::array({5.5}))) << member;
  }
  for (const char* member : {"/crea/adt", "/crea/ctyp", "/fls/0/ftyp", "/fls/0/furl"})
    EXPECT_FALSE(adWith(member, "no case")) << member;
}

TEST_F(Ads, AreLenientWithLinksAndTexts) {
  for (const Json& noLink : {Json(), Json(""), Json("no url"), Json(7)}) {
    EXPECT_EQ(adWith("/crea/curl", noLink)->creative.clickUrl, std::nullopt) << noLink;
    EXPECT_EQ(adWith("/crea/icon", noLink)->creative.iconUrl, std::nullopt) << noLink;
  }
  for (const char* noTexts : {"", "{", "[]", R"({"en": 1})"}) {
    const auto ad = adWith("/crea/bton", noTexts);
    ASSERT_TRUE(ad) << noTexts;
    EXPECT_EQ(ad->creative.buttonTitle(), "") << noTexts;
  }
  EXPECT_FALSE(adWithout("/crea/shouldCareSafeArea")->creative.shouldCareSafeArea);
}

TEST_F(Ads, CarryEveryMemberAndEncodeTextsAsObjects) {
  Json expected = adJson();
  for (const char* texts : {"bton", "deta"})
    expected["crea"][texts] = Json::parse(expected["crea"][texts].get<std::string>());
  EXPECT_EQ(Ad::decode(adJson())->toJson(), expected);
}

TEST_F(Ads, OfABidNeedPlansAlone) {
  const Json plan = {{"plan", "p"}, {"capd", 4}, {"caph", 2}};
  EXPECT_EQ(BidLoadResponse::decode({{"plans", Json::array()}})->bidId, std::nullopt);
  EXPECT_FALSE(BidLoadResponse::decode({{"bid", "b"}}));
  EXPECT_FALSE(BidLoadResponse::decode({{"bid", "b"}, {"plans", Json::array({plan})}}));
}

TEST(Templates, DecodeWhatTheyEncodeAndNeedAllButTheName) {
  const Json json = {
      {"tmpl", "t"}, {"adt", "interstitial"}, {"name", "n"}, {"html", "<p>"}, {"tver", 3}};
  EXPECT_EQ(Template::decode(json)->toJson(), json);
  for (const auto& [key, value] : json.items()) {
    Json without = json;
    without.erase(key);
    EXPECT_EQ(Template::decode(without).has_value(), key == "name") << key;
  }
}

}  // namespace
}  // namespace kva
