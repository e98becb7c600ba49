#include <Kelvara/ads/AdHelper.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

using CreativeHTML = AdsTest;
using Files = std::vector<CreativeFile>;

CreativeFile file(const char* url, const char* orientation,
                  CreativeFile::FileType type = CreativeFile::FileType::main) {
  return {.id = "f", .fileUrl = *URL::parse(url), .orientation = orientation, .fileType = type};
}

TEST_F(CreativeHTML, FillsEachPlaceholderWhereverItStands) {
  h.locale.set({.preferredLanguages = {"tr-TR", "en-US"}});
  EXPECT_EQ(
      AdHelper::finalize("[@CLICK_URL] [@MAIN_ASSET] [@END_CARD_IMAGE] [@ICON_IMAGE] "
                         "[@DESCRIPTION_TEXT] [@TITLE_TEXT] [@CTA_TEXT] [@CTA_TEXT][@CTA_TEXT] "
                         "[@cta_text] [@OTHER]",
                         *Ad::decode(adJson())),
      "https://click.test/?a=1 https://cdn.test/main.mp4 https://cdn.test/end.png "
      "https://cdn.test/icon.png Ayrinti Title Kur KurKur [@cta_text] [@OTHER]");
}

TEST_F(CreativeHTML, LeavesFilePlaceholdersAndEmptiesTheOthersWhenThereIsNothing) {
  Ad ad = *Ad::decode(adJson());
  ad.creative.clickUrl.reset();
  ad.creative.iconUrl.reset();
  ad.creative.buttonTexts.clear();
  ad.creative.detailTexts.clear();
  for (const auto& none : {std::optional<Files>(), std::optional(Files())}) {
    ad.files = none;
    EXPECT_EQ(AdHelper::finalize("<[@CLICK_URL][@ICON_IMAGE][@DESCRIPTION_TEXT][@CTA_TEXT]>"
                                 "[@MAIN_ASSET][@END_CARD_IMAGE]",
                                 ad),
              "<>[@MAIN_ASSET][@END_CARD_IMAGE]");
  }
}

TEST_F(CreativeHTML, ReplacesInOrderAndUnescapesLast) {
  Ad ad = *Ad::decode(adJson());
  ad.creative.title = R"(<b>"it's"</b> $1 \1 [@CTA_TEXT] [@DESCRIPTION_TEXT])";
  ad.creative.buttonTexts = {{"en", R"(a\nb\\t\"c\")"}};
  // The doubled backslash holds a "\t", which is undone before it.
  EXPECT_EQ(AdHelper::finalize("[@TITLE_TEXT]", ad),
            "<b>\"it's\"</b> $1 \\1 a\nb\\\t\"c\" [@DESCRIPTION_TEXT]");
}

TEST_F(CreativeHTML, ChoosesFilesForTheOrientation) {
  const auto landscape = file("a://landscape", "landscape");
  const auto portrait = file("a://portrait", "portrait");
  const auto secondPortrait = file("a://portrait2", "portrait");
  const auto upperCase = file("a://upper", "Landscape");
  const auto endCard = file("a://end", "landscape", CreativeFile::FileType::endCard);
  const struct {
    DeviceOrientation orientation;
    Files files;
    const char* chosen;
  } cases[] = {
      {DeviceOrientation::portrait, {landscape, portrait}, "a://portrait"},
      {DeviceOrientation::portraitUpsideDown, {landscape, portrait}, "a://portrait"},
      {DeviceOrientation::landscapeLeft, {portrait, landscape}, "a://landscape"},
      {DeviceOrientation::faceUp, {landscape, portrait}, "a://landscape"},
      {DeviceOrientation::faceDown, {portrait, landscape}, "a://landscape"},
      {DeviceOrientation::unknown, {portrait, secondPortrait}, "a://portrait"},
      {DeviceOrientation::portrait, {portrait, landscape, secondPortrait}, "a://portrait2"},
      {DeviceOrientation::landscapeRight, {portrait, upperCase}, "a://portrait"},
      {DeviceOrientation::landscapeRight, {endCard}, "[@MAIN_ASSET]"},
  };
  Ad ad = *Ad::decode(adJson());
  for (const auto& [orientation, files, chosen] : cases) {
    h.device.setOrientationNow(orientation);
    ad.files = files;
    EXPECT_EQ(AdHelper::finalize("[@MAIN_ASSET]", ad), chosen);
  }
}

TEST_F(CreativeHTML, PicksTheTextForTheFirstPreferredLanguage) {
  const struct {
    std::vector<std::string> languages;
    LocalizedTexts texts;
    std::optional<std::string> picked;
  } cases[] = {
      {{"en-GB"}, {{"en", "English"}, {"tr", "Turkish"}}, "English"},
      {{"de-DE", "tr-TR"}, {{"en", "English"}, {"tr", "Turkish"}}, "English"},
      {{"de-DE"}, {{"tr", "Turkish"}}, "Turkish"},
      {{"tr-TR"}, {{"en", "English"}, {"tr", "Turkish"}}, "Turkish"},
      {{"tr-TR"}, {{"TR", "region"}, {"tr", "Turkish"}}, "region"},  // anywhere in the tag
      {{"zh-Hant"}, {{"an", "Aragonese"}, {"zh", "Chinese"}}, "Aragonese"},
      {{"tr-TR"}, {{"", "any"}, {"tr", "Turkish"}}, "any"},
      {{}, {{"de", "German"}, {"en", "English"}}, "English"},
      {{"en"}, {}, std::nullopt},
  };
  for (const auto& [languages, texts, picked] : cases) {
    h.locale.set({.preferredLanguages = languages});
    EXPECT_EQ(AdHelper::localizedString(texts), picked);
  }
}

}  // namespace
}  // namespace kva
