#include <Kelvara/ads/AdHelper.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

class CreativeHTML : public AdsTest {
 protected:
  Ad ad = *Ad::decode(adJson());
};

TEST_F(CreativeHTML, FillsEachPlaceholderWhereverItStands) {
  h.locale.set({.preferredLanguages = {"tr-TR", "en-US"}});
  const std::string html =
      "[@CLICK_URL] [@MAIN_ASSET] [@END_CARD_IMAGE] [@ICON_IMAGE] [@DESCRIPTION_TEXT] "
      "[@TITLE_TEXT] [@CTA_TEXT][@CTA_TEXT] [@cta_text]";
  EXPECT_EQ(AdHelper::finalize(html, ad),
            "https://click.test/?a=1 https://cdn.test/a.mp4 a://end https://cdn.test/icon.png "
            "Ayrinti Title KurKur [@cta_text]");
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
    h.device.setOrientationNow(orientation);
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
