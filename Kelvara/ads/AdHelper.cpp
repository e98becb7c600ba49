#include <Kelvara/ads/AdHelper.h>

#include <string_view>

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

std::string AdHelper::finalize(std::string html, const Ad& ad) {
  const auto replace = [&html](std::string_view placeholder, std::string_view value) {
    html = replacingOccurrences(html, placeholder, value);
  };
  const auto& creative = ad.creative;
  const auto [main, endCard] = chooseFiles(ad);
  const std::string language = preferredLanguage();

  // Each replacement works on the result of the previous one, so a value may contain a later
  // placeholder.
  replace("[@CLICK_URL]", absoluteString(creative.clickUrl));
  if (main) replace("[@MAIN_ASSET]", main->fileUrl.absoluteString());
  if (endCard) replace("[@END_CARD_IMAGE]", endCard->fileUrl.absoluteString());
  replace("[@ICON_IMAGE]", absoluteString(creative.iconUrl));
  replace("[@DESCRIPTION_TEXT]", creative.detailTitle(language));
  replace("[@TITLE_TEXT]", creative.title);
  replace("[@CTA_TEXT]", creative.buttonTitle(language));
  return unescaped(html);
}

std::optional<std::string> AdHelper::localizedString(const LocalizedTexts& dictionary) {
  return kva::localizedString(dictionary, preferredLanguage());
}

}  // namespace kva
