#include <Kelvara/ads/AdHelper.h>

#include <iterator>
#include <string_view>
#include <vector>

#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Runtime.h>

namespace kva {
namespace {

struct ChosenFiles {
  const CreativeFile* main = nullptr;
  const CreativeFile* endCard = nullptr;
};

std::string_view currentOrientation() {
  switch (Runtime::current().platform().device->orientation()) {
    case DeviceOrientation::portrait:
    case DeviceOrientation::portraitUpsideDown:
      return "portrait";
    default:
      return "landscape";
  }
}

/// For each type, chooses the last file that matches the orientation, else the first.
ChosenFiles chooseFiles(const Ad& ad) {
  ChosenFiles chosen;
  if (!ad.files) return chosen;
  const auto orientation = currentOrientation();
  for (const auto& file : *ad.files) {
    auto& choice = file.fileType == CreativeFile::FileType::main ? chosen.main : chosen.endCard;
    if (!choice || file.orientation == orientation) choice = &file;
  }
  return chosen;
}

std::string preferredLanguage() {
  const auto languages = Runtime::current().platform().locale->preferredLanguages();
  return languages.empty() ? "" : languages.front();
}

std::string absoluteString(const std::optional<URL>& url) {
  return url ? url->absoluteString() : "";
}

}  // namespace

std::string AdHelper::finalize(std::string_view html, const Ad& ad) {
  const auto& creative = ad.creative;
  const auto [main, endCard] = chooseFiles(ad);
  const std::string language = preferredLanguage();
  const std::string clickUrl = absoluteString(creative.clickUrl);
  const std::string mainAsset = main ? main->fileUrl.absoluteString() : "";
  const std::string endCardImage = endCard ? endCard->fileUrl.absoluteString() : "";
  const std::string iconImage = absoluteString(creative.iconUrl);
  const std::string description = creative.detailTitle(language);
  const std::string callToAction = creative.buttonTitle(language);

  std::vector<Replacement> replacements{{"[@CLICK_URL]", clickUrl}};
  if (main) replacements.push_back({"[@MAIN_ASSET]", mainAsset});
  if (endCard) replacements.push_back({"[@END_CARD_IMAGE]", endCardImage});
  replacements.insert(replacements.end(), {{"[@ICON_IMAGE]", iconImage},
                                           {"[@DESCRIPTION_TEXT]", description},
                                           {"[@TITLE_TEXT]", creative.title},
                                           {"[@CTA_TEXT]", callToAction}});
  replacements.insert(replacements.end(), std::begin(kUnescaped), std::end(kUnescaped));
  return replacingInOrder(html, replacements);
}

std::optional<std::string> AdHelper::localizedString(const LocalizedTexts& dictionary) {
  return kva::localizedString(dictionary, preferredLanguage());
}

}  // namespace kva
