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

// The records of an ad: plain values, constant once decoded.
namespace kva {

/// Texts by language code, such as "en".
using LocalizedTexts = std::map<std::string, std::string>;

/// Returns the text for `language`, a tag such as "de-DE": the first in key order whose key occurs
/// anywhere in the tag, else the one for "en", else the first. Empty if there are no texts.
std::optional<std::string> localizedString(const LocalizedTexts& dictionary,
                                           std::string_view language);

/// One file of a creative, for one orientation of the device.
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
  /// The call to action and the description in `language`, chosen by `localizedString`; "" if there
  /// is none.
  std::string buttonTitle(std::string_view language) const;
  std::string detailTitle(std::string_view language) const;

  /// A malformed link counts as absent. The texts arrive as JSON objects inside JSON strings; a
  /// malformed one counts as empty.
  static Result<Creative> decode(const Json& json);
  /// Writes the texts as JSON objects, so `decode` does not accept the result.
  Json toJson() const;
  bool operator==(const Creative&) const = default;
};

struct Ad {
  std::string bidId;
  Creative creative;
  std::string templateId;
  /// Set in every decoded ad.
  std::optional<std::vector<CreativeFile>> files;

  static Result<Ad> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Ad&) const = default;
};

/// The response to a bid request.
struct BidLoadResponse {
  std::optional<std::string> bidId;  ///< set if `plans` is not empty
  std::vector<Plan> plans;           ///< in the server's order of preference

  static Result<BidLoadResponse> decode(const Json& json);
};

}  // namespace kva
