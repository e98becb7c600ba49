#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <Kelvara/ads/AdType.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/base/URL.h>
#include <Kelvara/user/Plan.h>

// What the server sends as an ad: plain values, never changed after they are decoded.
namespace kva {

/// Texts by language code, such as "en".
using LocalizedTexts = std::map<std::string, std::string>;

/// The text for a language tag: the first, in key order, whose key occurs anywhere in the tag; else
/// the one for "en"; else the first. Nothing for no texts.
std::optional<std::string> localizedString(const LocalizedTexts& dictionary,
                                           std::string_view language);

/// One file of a creative, for one way of holding the device.
struct CreativeFile {
  enum class FileType { main, endCard };

  std::string id;
  URL fileUrl;
  std::string orientation;  ///< "landscape" or "portrait"
  FileType fileType;

  static Result<CreativeFile> decode(const Json& json);
  Json toJson() const;
  bool operator==(const CreativeFile&) const = default;
};

/// The texts, durations and links of an ad.
struct Creative {
  enum class ContentType { video, image };

  std::string id;
  AdType adType = AdType::interstitial;
  ContentType contentType = ContentType::image;
  std::int64_t arcDuration = 0;  ///< seconds during which the close button stays hidden
  std::string title;
  LocalizedTexts buttonTexts;
  LocalizedTexts detailTexts;
  std::optional<URL> clickUrl;
  std::optional<URL> iconUrl;
  bool shouldCareSafeArea = false;

  bool preload() const { return contentType == ContentType::video; }
  bool isCloseButtonHidden() const { return arcDuration != 0; }
  /// The call to action and the description in `language`, a tag such as "de-DE"; "" when there is
  /// none.
  std::string buttonTitle(std::string_view language) const;
  std::string detailTitle(std::string_view language) const;

  /// A missing or malformed link is absent; the texts arrive as JSON inside of a JSON string.
  static Result<Creative> decode(const Json& json);
  /// Writes the texts as JSON objects, so the outcome does not decode again.
  Json toJson() const;
  bool operator==(const Creative&) const = default;
};

struct Ad {
  std::string bidId;
  Creative creative;
  std::string templateId;
  /// Present in every ad that was decoded.
  std::optional<std::vector<CreativeFile>> files;

  static Result<Ad> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Ad&) const = default;
};

/// The answer to a bid request.
struct BidLoadResponse {
  std::optional<std::string> bidId;  ///< present when there is a plan to bid with
  std::vector<Plan> plans;           ///< in the server's order of preference

  static Result<BidLoadResponse> decode(const Json& json);
};

}  // namespace kva
