#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kva {

/// An absolute URL or a relative reference, parsed as browsers parse it: surrounding white space is
/// ignored, characters that a URI must not contain are percent-encoded, and an international host
/// is converted to its ASCII form. All other bytes are unchanged. Blank text, text that is not
/// UTF-8 and text with an invalid host or port are not URLs. Implemented by platform/foundation.
class URL {
 public:
  static std::optional<URL> parse(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  /// In its original case; absent for a relative reference.
  const std::optional<std::string>& scheme() const { return scheme_; }
  /// Absent if missing or empty; an IPv6 address without its brackets.
  const std::optional<std::string>& host() const { return host_; }
  /// Still percent-encoded, without the "?"; absent when there is no "?".
  const std::optional<std::string>& query() const { return query_; }

  bool operator==(const URL& other) const { return text_ == other.text_; }

 private:
  URL() = default;
  bool resolveHost();
  std::string text_;
  std::optional<std::string> scheme_, host_, query_;
};

/// Percent-encodes each character that would end or alter `value` as a value in a query.
std::string addingPercentEncoding(std::string_view value);

/// Percent-decodes `text`. Absent if a "%" is not followed by two hexadecimal digits or the result
/// is not UTF-8. "+" is not decoded.
std::optional<std::string> removingPercentEncoding(std::string_view text);

}  // namespace kva
