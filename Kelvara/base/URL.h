#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kva {

/// An absolute address or a relative reference, read as browsers read it: white space around it is
/// ignored, what may not stand in a URI is percent-encoded, an international host takes its ASCII
/// form. All else stays byte for byte. Nothing but white space, text that is not UTF-8, and a host
/// or port that cannot be one are no URL. Implemented by platform/foundation.
class URL {
 public:
  static std::optional<URL> parse(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  /// As written, case kept; absent for a relative reference.
  const std::optional<std::string>& scheme() const { return scheme_; }
  /// Absent when there is none or it is empty; an IPv6 address without its brackets.
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

/// `value` with everything percent-encoded that could end it or change in it as the value of a
/// query.
std::string addingPercentEncoding(std::string_view value);

/// Percent-decodes `text`; nothing when a "%" is not followed by two hexadecimal digits or the
/// result is no UTF-8. "+" stays.
std::optional<std::string> removingPercentEncoding(std::string_view text);

}  // namespace kva
