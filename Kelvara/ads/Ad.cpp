#include <Kelvara/ads/Ad.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/core/SDKHelper.h>

namespace kva {
namespace {

template <class E>
struct Named {
  E value;
  const char* rawValue;
};

constexpr Named<Creative::ContentType> kContentTypes[] = {{Creative::ContentType::video, "video"},
                                                          {Creative::ContentType::image, "image"}};
constexpr Named<CreativeFile::FileType> kFileTypes[] = {
    {CreativeFile::FileType::main, "main"}, {CreativeFile::FileType::endCard, "end_card"}};

template <class E, std::size_t N>
std::optional<E> fromRawValue(const Named<E> (&cases)[N], std::string_view rawValue) {
  const auto* found = std::ranges::find(cases, rawValue, &Named<E>::rawValue);
  return found == std::end(cases) ? std::nullopt : std::optional(found->value);
}

template <class E, std::size_t N>
const char* rawValueOf(const Named<E> (&cases)[N], E value) {
  return std::ranges::find(cases, value, &Named<E>::value)->rawValue;
}

std::optional<Creative::ContentType> contentTypeFromRawValue(std::string_view rawValue) {
  return fromRawValue(kContentTypes, rawValue);
}

std::optional<CreativeFile::FileType> fileTypeFromRawValue(std::string_view rawValue) {
  return fromRawValue(kFileTypes, rawValue);
}

LocalizedTexts textsFromJsonText(const std::string& text) {
  return convertToDictionary(text).value_or(LocalizedTexts());
}

}  // namespace

std::optional<std::string> localizedString(const LocalizedTexts& dictionary,
                                           std::string_view language) {
  if (dictionary.empty()) return std::nullopt;
  for (const auto& [code, text] : dictionary)
    if (language.contains(code)) return text;
  if (const auto english = dictionary.find("en"); english != dictionary.end())
    return english->second;
  return dictionary.begin()->second;
}

Result<CreativeFile> CreativeFile::decode(const Json& json) {
  static const URL nowhere = *URL::parse("about:blank");
  Reader in(json);
  CreativeFile file{.id = in.required<std::string>("id"),
                    .fileUrl = in.requiredAs<URL, std::string>("furl", URL::parse, nowhere),
                    .orientation = in.required<std::string>("ornt"),
                    .fileType = in.requiredAs<FileType, std::string>("ftyp", fileTypeFromRawValue,
                                                                     FileType::main)};
  return in.finish(std::move(file));
}

Json CreativeFile::toJson() const {
  return {{"id", id},
          {"furl", fileUrl.absoluteString()},
          {"ornt", orientation},
          {"ftyp", rawValueOf(kFileTypes, fileType)}};
}

Result<Creative> Creative::decode(const Json& json) {
  Reader in(json);
  Creative creative;
  creative.id = in.required<std::string>("id");
  creative.adType =
      in.requiredAs<AdType, std::string>("adt", adTypeFromRawValue, AdType::interstitial);
  creative.contentType =
      in.requiredAs<ContentType, std::string>("ctyp", contentTypeFromRawValue, ContentType::image);
  creative.arcDuration = in.required<std::int64_t>("adur");
  creative.title = in.required<std::string>("titl");
  creative.clickUrl = in.optional<URL>("curl");
  creative.iconUrl = in.optional<URL>("icon");
  const auto buttonTexts = in.required<std::string>("bton");
  const auto detailTexts = in.required<std::string>("deta");
  creative.shouldCareSafeArea = in.optional("shouldCareSafeArea", false);

  auto decoded = in.finish(std::move(creative));
  if (decoded) {  // parsed last, since text that is not JSON is logged
    decoded->buttonTexts = textsFromJsonText(buttonTexts);
    decoded->detailTexts = textsFromJsonText(detailTexts);
  }
  return decoded;
}

Json Creative::toJson() const {
  Json json = {{"id", id},
               {"adt", std::string(rawValue(adType))},
               {"ctyp", rawValueOf(kContentTypes, contentType)},
               {"adur", arcDuration},
               {"titl", title},
               {"bton", buttonTexts},
               {"deta", detailTexts},
               {"shouldCareSafeArea", shouldCareSafeArea}};
  if (clickUrl) json["curl"] = clickUrl->absoluteString();
  if (iconUrl) json["icon"] = iconUrl->absoluteString();
  return json;
}

std::string Creative::buttonTitle(std::string_view language) const {
  return localizedString(buttonTexts, language).value_or("");
}

std::string Creative::detailTitle(std::string_view language) const {
  return localizedString(detailTexts, language).value_or("");
}

Result<Ad> Ad::decode(const Json& json) {
  Reader in(json);
  Ad ad{.bidId = in.required<std::string>("bid"),
        .creative = in.required<Creative>("crea"),
        .templateId = in.required<std::string>("tmpl"),
        .files = in.requiredList<CreativeFile>("fls")};
  return in.finish(std::move(ad));
}

Json Ad::toJson() const {
  Json json = {{"bid", bidId}, {"crea", creative.toJson()}, {"tmpl", templateId}};
  if (files) {
    Json& list = json["fls"] = Json::array();
    for (const auto& file : *files) list.push_back(file.toJson());
  }
  return json;
}

Result<BidLoadResponse> BidLoadResponse::decode(const Json& json) {
  Reader in(json);
  BidLoadResponse response{.bidId = in.optional<std::string>("bid"),
                           .plans = in.requiredList<Plan>("plans")};
  return in.finish(std::move(response));
}

}  // namespace kva
