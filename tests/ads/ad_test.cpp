#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/AdHelper.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

/// An ad with everything in it.
const Json kAd = Json::parse(R"({
  "bid": "bid", "tmpl": "t1",
  "crea": {"id": "c1", "adt": "rewarded", "ctyp": "video", "adur": 5, "titl": "Title",
           "bton": "{\"en\": \"Install\", \"tr\": \"Kur\"}", "deta": "{\"tr\": \"Ayrinti\"}",
           "curl": "https://click.test/?a=1", "icon": "a://icon", "shouldCareSafeArea": true},
  "fls": [{"id": "f1", "furl": "a://main", "ornt": "landscape", "ftyp": "main"},
          {"id": "f2", "furl": "a://end", "ornt": "portrait", "ftyp": "end_card"}]})");

class Ads : public Stage {  // text that is no JSON goes to the log
 protected:
  static Result<Ad> adWith(const char* member, const Json& value) {
    Json json = kAd;
    json[Json::json_pointer(member)] = value;
    return Ad::decode(json);
  }
  static Result<Ad> adWithout(const char* member) {
    return Ad::decode(kAd.patch(Json::array({{{"op", "remove"}, {"path", member}}})));
  }
};

TEST_F(Ads, NeedEachRequiredMemberWellTypedAndOfAKnownCase) {
  for (const char* member : {"/bid", "/tmpl", "/crea", "/fls", "/crea/id", "/crea/adt",
                             "/crea/ctyp", "/crea/adur", "/crea/titl", "/crea/bton", "/crea/deta",
                             "/fls/0/id", "/fls/1/furl", "/fls/1/ornt", "/fls/0/ftyp"}) {
    EXPECT_FALSE(adWithout(member)) << member;
    EXPECT_FALSE(adWith(member, Json::array({5.5}))) << member;
  }
  for (const char* member : {"/crea/adt", "/crea/ctyp", "/fls/0/ftyp"})
    EXPECT_FALSE(adWith(member, "no case")) << member;
  EXPECT_FALSE(adWith("/fls/0/furl", "http://["));
}

TEST_F(Ads, AreLenientWithLinksAndTexts) {
  for (const Json& noLink : {Json(), Json(""), Json("http://["), Json(7)}) {
    EXPECT_EQ(adWith("/crea/curl", noLink)->creative.clickUrl, std::nullopt) << noLink;
    EXPECT_EQ(adWith("/crea/icon", noLink)->creative.iconUrl, std::nullopt) << noLink;
  }
  for (const char* noTexts : {"", "{", "[]", R"({"en": 1})"}) {
    const auto ad = adWith("/crea/bton", noTexts);
    ASSERT_TRUE(ad) << noTexts;
    EXPECT_EQ(ad->creative.buttonTitle("en"), "") << noTexts;
  }
  EXPECT_FALSE(adWithout("/crea/shouldCareSafeArea")->creative.shouldCareSafeArea);
}

TEST_F(Ads, CarryEveryMemberAndEncodeTextsAsObjects) {
  Json expected = kAd;
  for (const char* texts : {"bton", "deta"})
    expected["crea"][texts] = Json::parse(expected["crea"][texts].get<std::string>());
  EXPECT_EQ(Ad::decode(kAd)->toJson(), expected);
}

TEST_F(Ads, OfABidNeedPlansAlone) {
  EXPECT_EQ(BidLoadResponse::decode({{"plans", Json::array()}})->bidId, std::nullopt);
  EXPECT_FALSE(BidLoadResponse::decode({{"bid", "b"}}));
}

class CreativeHTML : public Stage {
 protected:
  Ad ad = *Ad::decode(kAd);
};

TEST_F(CreativeHTML, FillsEachPlaceholderWhereverItStands) {
  h.locale.set({.preferredLanguages = {"tr-TR", "en-US"}});
  const std::string html =
      "[@CLICK_URL] [@MAIN_ASSET] [@END_CARD_IMAGE] [@ICON_IMAGE] [@DESCRIPTION_TEXT] "
      "[@TITLE_TEXT] [@CTA_TEXT][@CTA_TEXT] [@cta_text]";
  EXPECT_EQ(AdHelper::finalize(html, ad),
            "https://click.test/?a=1 a://main a://end a://icon Ayrinti Title KurKur [@cta_text]");
  ad.files.reset();
  ad.creative = {};
  EXPECT_EQ(AdHelper::finalize(html, ad), " [@MAIN_ASSET] [@END_CARD_IMAGE]     [@cta_text]");
}

TEST_F(CreativeHTML, ReplacesInOrderAndUnescapesLast) {
  ad.creative.title = R"(<b>"it's"</b> $1 \1 [@CTA_TEXT] [@DESCRIPTION_TEXT])";
  ad.creative.buttonTexts = {{"en", R"(a\nb\\t\"c\")"}};
  // The doubled backslash holds a "\t", which is undone before it.
  EXPECT_EQ(AdHelper::finalize("[@TITLE_TEXT]", ad),
            "<b>\"it's\"</b> $1 \\1 a\nb\\\t\"c\" [@DESCRIPTION_TEXT]");
}

TEST_F(CreativeHTML, ChoosesOfEachTypeTheLastFileForTheOrientationElseTheFirst) {
  using enum DeviceOrientation;
  const struct {
    DeviceOrientation orientation;
    std::vector<const char*> orientationsOfFiles;
    std::string chosen;
  } cases[] = {{portraitUpsideDown, {"landscape", "portrait"}, "1"},
               {faceUp, {"portrait", "landscape"}, "1"},
               {portrait, {"portrait", "portrait", "landscape"}, "1"},
               {unknown, {"portrait", "Landscape"}, "0"}};
  for (const auto& [orientation, orientationsOfFiles, chosen] : cases) {
    h.device.setOrientation(orientation);
    ad.files->clear();
    for (const auto type : {CreativeFile::FileType::main, CreativeFile::FileType::endCard})
      for (std::size_t i = 0; i < orientationsOfFiles.size(); ++i)
        ad.files->push_back(
            {"f", *URL::parse("a://" + std::to_string(i)), orientationsOfFiles[i], type});
    EXPECT_EQ(AdHelper::finalize("[@MAIN_ASSET] [@END_CARD_IMAGE]", ad),
              "a://" + chosen + " a://" + chosen);
  }
}

TEST_F(CreativeHTML, PicksTheTextForTheFirstPreferredLanguage) {
  const struct {
    std::vector<std::string> languages;
    LocalizedTexts texts;
    std::optional<std::string> picked;
  } cases[] = {{{"tr-TR", "en"}, {{"en", "English"}, {"tr", "Turkish"}}, "Turkish"},
               {{"zh-Hant", "en"}, {{"an", "Aragonese"}, {"zh", "Chinese"}}, "Aragonese"},
               {{}, {{"de", "German"}, {"en", "English"}}, "English"},
               {{"de-DE"}, {{"tr", "Turkish"}}, "Turkish"},
               {{"en"}, {}, std::nullopt}};
  for (const auto& [languages, texts, picked] : cases) {
    h.locale.set({.preferredLanguages = languages});
    EXPECT_EQ(AdHelper::localizedString(texts), picked);
  }
}

}  // namespace
}  // namespace kva
