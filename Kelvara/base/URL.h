#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kva {

/// An RFC 3986 URI or relative reference, kept as it was written. "" and text with a space, a
/// control character or anything beyond ASCII are no URL. Implemented by platform/foundation.
class URL {
 public:
  static std::optional<URL> parse(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  /// As written, case kept; absent for a relative reference.
  const std::optional<std::string>& scheme() const { return scheme_; }
  /// As written; absent when there is none or it is empty.
  const std::optional<std::string>& host() const { return host_; }
  /// Still percent-encoded, without the "?"; absent when there is no "?".
  const std::optional<std::string>& query() const { return query_; }

  bool operator==(const URL& other) const { return text_ == other.text_; }

 private:
  URL() = default;
  std::string text_;
  std::optional<std::string> scheme_, host_, query_;
};

/// Percent-decodes `text`; nothing when a "%" is not followed by two hexadecimal digits or the
/// result is no UTF-8. "+" stays.
std::optional<std::string> removingPercentEncoding(std::string_view text);

}  // namespace kva
