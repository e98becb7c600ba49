#include <Kelvara/base/URL.h>

#include <memory>

#include <Kelvara/base/Text.h>
#include <glib.h>
#include <uriparser/Uri.h>

namespace kva {
namespace {

std::optional<std::string> copyOf(const UriTextRangeA& range) {
  if (!range.first || range.first == range.afterLast) return {};
  return std::string(range.first, range.afterLast);
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (text.empty()) return {};
  UriUriA parsed;
  if (uriParseSingleUriExA(&parsed, text.data(), text.data() + text.size(), nullptr) != URI_SUCCESS)
    return {};
  std::unique_ptr<UriUriA, decltype(&uriFreeUriMembersA)> guard(&parsed, &uriFreeUriMembersA);
  URL url;
  url.text_ = text;
  url.scheme_ = copyOf(parsed.scheme);
  url.host_ = copyOf(parsed.hostText);
  if (parsed.query.first) url.query_ = std::string(parsed.query.first, parsed.query.afterLast);
  return url;
}

std::optional<std::string> removingPercentEncoding(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t from = 0, sign = 0;; from = sign + 3) {
    sign = text.find('%', from);
    decoded.append(text.substr(from, sign - from));
    if (sign == std::string_view::npos) break;
    if (sign + 2 >= text.size() || !g_ascii_isxdigit(text[sign + 1]) ||
        !g_ascii_isxdigit(text[sign + 2]))
      return {};
    decoded += static_cast<char>(g_ascii_xdigit_value(text[sign + 1]) * 16 +
                                 g_ascii_xdigit_value(text[sign + 2]));
  }
  if (!isUTF8(decoded)) return {};
  return decoded;
}

}  // namespace kva
