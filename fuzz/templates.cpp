// The document that the SDK makes of a template and an ad.
// Input: seven lines (title, language and text of the button, language and text of the
// description, main file's URL, end card's URL, click URL, icon URL), then the template.

#include <array>
#include <string>
#include <string_view>

#include <Kelvara/ads/AdHelper.h>
#include <Kelvara/base/StringExtensions.h>
#include <fuzz/Device.h>
#include <fuzz/Target.h>

namespace kva::fuzz {
namespace {

LocalizedTexts texts(std::string_view line) {
  const std::string language(cut(line, " "));
  return {{language, std::string(line)}, {"zz", "last"}};
}

void addFile(Ad& ad, CreativeFile::FileType type, std::string_view url) {
  if (auto parsed = URL::parse(url))
    ad.files->push_back(
        {.id = "f", .fileUrl = *parsed, .orientation = "portrait", .fileType = type});
}

Ad takeAd(std::string_view& rest) {
  Ad ad{.bidId = "bid", .creative = {}, .templateId = "template", .files = {{}}};
  ad.creative.title = cut(rest, "\n");
  ad.creative.buttonTexts = texts(cut(rest, "\n"));
  ad.creative.detailTexts = texts(cut(rest, "\n"));
  addFile(ad, CreativeFile::FileType::main, cut(rest, "\n"));
  addFile(ad, CreativeFile::FileType::endCard, cut(rest, "\n"));
  ad.creative.clickUrl = URL::parse(cut(rest, "\n"));
  ad.creative.iconUrl = URL::parse(cut(rest, "\n"));
  return ad;
}

void checkUnescaped(std::string_view escaped) {
  const std::string plain = unescaped(escaped);
  expect(plain.size() <= escaped.size(), "unescaping adds nothing");
  if (!escaped.contains('\\')) expect(plain == escaped, "without a backslash all stays");
}

void finalize(const std::string& html, const Ad& ad) {
  const std::string document = AdHelper::finalize(html, ad);
  if (!html.contains("[@") && !html.contains('\\'))
    expect(document == html, "without placeholders and escapes all stays");
  const Ad blank{.bidId = "bid", .creative = {}, .templateId = "template", .files = {{}}};
  expect(AdHelper::finalize(html, blank).size() <= html.size(), "an ad without texts adds none");
}

}  // namespace
}  // namespace kva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kva;
  fuzz::Device device;
  Runtime runtime(device.platform());
  auto rest = fuzz::text(data, size);
  fuzz::checkUnescaped(rest);
  const Ad ad = fuzz::takeAd(rest);
  fuzz::finalize(std::string(rest), ad);
  return 0;
}
