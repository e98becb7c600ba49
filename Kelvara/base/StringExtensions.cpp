#include <Kelvara/base/StringExtensions.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <vector>

#include <Kelvara/base/Digest.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Json.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

/// The query split at each "&". An empty query gives one empty piece.
std::vector<std::string_view> pieces(std::string_view query) {
  std::vector<std::string_view> all;
  for (std::size_t end; (end = query.find('&')) != std::string_view::npos;) {
    all.push_back(query.substr(0, end));
    query.remove_prefix(end + 1);
  }
  all.push_back(query);
  return all;
}

}  // namespace

std::string md5Value(std::string_view text) { return md5Hex(text); }

std::string replacingOccurrences(std::string_view text, std::string_view target,
                                 std::string_view replacement) {
  std::string replaced;
  replaced.reserve(text.size());
  std::size_t from = 0;
  for (std::size_t at; (at = text.find(target, from)) != std::string_view::npos;) {
    replaced.append(text, from, at - from);
    replaced.append(replacement);
    from = at + target.size();
  }
  replaced.append(text, from);
  return replaced;
}

std::string lowercased(std::string_view text) {
  std::string lower(text);
  for (char& letter : lower)
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  return lower;
}

bool isValidUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool hyphenPlace = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (hyphenPlace ? c != '-' : !hex) return false;
  }
  return true;
}

std::int64_t millisecondsSince1970(double secondsSince1970) {
  const double milliseconds = std::round(secondsSince1970 * 1000);
  if (!(std::abs(milliseconds) < 0x1p63)) fatal("a date beyond 64 bits of milliseconds");
  return static_cast<std::int64_t>(milliseconds);
}

bool hasWellFormedQuery(const URL& url) {
  if (!url.query()) return true;
  return std::ranges::all_of(pieces(*url.query()),
                             [](std::string_view piece) { return piece.contains('='); });
}

std::optional<std::map<std::string, std::string>> queryDictionary(const URL& url) {
  if (!url.query()) return {};
  if (!hasWellFormedQuery(url)) fatal("a query piece without \"=\" in " + url.absoluteString());
  std::map<std::string, std::string> dictionary;
  for (std::string_view piece : pieces(*url.query())) {
    const std::size_t sign = piece.find('=');
    const std::size_t end = piece.find('=', sign + 1);
    const std::string value =
        replacingOccurrences(piece.substr(sign + 1, end - sign - 1), "+", " ");
    dictionary[std::string(piece.substr(0, sign))] = removingPercentEncoding(value).value_or("");
  }
  return dictionary;
}

}  // namespace kva
