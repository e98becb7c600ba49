#include <Kelvara/base/URL.h>

#include <algorithm>
#include <array>

#include <Kelvara/base/Text.h>
#include <glib.h>

namespace kva {
namespace {

using namespace std::string_view_literals;

/// A set of ASCII characters.
class CharacterSet {
 public:
  /// Letters, digits and `others`.
  constexpr explicit CharacterSet(std::string_view others) {
    for (const char c : "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"sv) add(c);
    for (const char c : others) add(c);
  }
  constexpr bool contains(char c) const { return members_[static_cast<unsigned char>(c)]; }

 private:
  constexpr void add(char c) { members_[static_cast<unsigned char>(c)] = true; }
  std::array<bool, 256> members_{};
};

/// What a URI may contain.
constexpr CharacterSet kUnescaped("-._~:/?#[]@!$&'()*+,;=%");
/// What a query's value may contain unescaped.
constexpr CharacterSet kUnescapedInValue("-._~:/?@!$'()*,");
constexpr std::string_view kForbiddenInHost = " \"#%/<>?@[\\]^`{|}\x7f";

std::string escaped(std::string_view text, const CharacterSet& unescaped) {
  constexpr const char* digits = "0123456789ABCDEF";
  std::string all;
  while (true) {
    const auto end = std::ranges::find_if_not(text, [&](char c) { return unescaped.contains(c); });
    all.append(text.begin(), end);
    if (end == text.end()) return all;
    const auto byte = static_cast<unsigned char>(*end);
    all += {'%', digits[byte / 16], digits[byte % 16]};
    text = {end + 1, text.end()};
  }
}

bool isEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && g_ascii_isxdigit(text[1]) &&
         g_ascii_isxdigit(text[2]);
}

/// Removes the white space that browsers ignore.
std::string trimmed(std::string_view text) {
  const auto isInk = [](char c) { return static_cast<unsigned char>(c) > ' '; };
  const auto begin = std::ranges::find_if(text, isInk);
  const auto end = std::find_if(text.rbegin(), text.rend(), isInk).base();
  std::string inked = begin < end ? std::string(begin, end) : "";
  std::erase_if(inked, [](char c) { return c == '\t' || c == '\n' || c == '\r'; });
  return inked;
}

bool isWeb(const std::string& text) {
  return g_ascii_strncasecmp(text.c_str(), "http:", 5) == 0 ||
         g_ascii_strncasecmp(text.c_str(), "https:", 6) == 0;
}

/// Percent-encodes each character that a URI may not contain.
std::string wellFormed(std::string text) {
  if (text.contains('\\') && isWeb(text)) {
    const auto resource =
        text.begin() + static_cast<std::ptrdiff_t>(std::min(text.find_first_of("?#"), text.size()));
    std::replace(text.begin(), resource, '\\', '/');
  }
  std::string formed = escaped(text, kUnescaped);
  for (std::size_t sign = 0; (sign = formed.find('%', sign)) != std::string::npos; ++sign)
    if (!isEscape(std::string_view(formed).substr(sign))) formed.replace(sign, 1, "%25");
  return formed;
}

/// The host in a URI that has one.
std::string_view hostIn(std::string_view text) {
  text.remove_prefix(text.find("//") + 2);
  text = text.substr(0, text.find_first_of("/?#"));
  if (const auto at = text.rfind('@'); at != text.npos) text.remove_prefix(at + 1);
  return text.substr(0, text.find(':', text.starts_with('[') ? text.find(']') : 0));
}

/// The host's name in DNS; nothing if it is not a valid host.
std::optional<std::string> asciiHost(std::string_view host) {
  auto decoded = removingPercentEncoding(host);
  if (!decoded || decoded->contains('\0')) return {};
  if (g_hostname_is_non_ascii(decoded->c_str())) {
    g_autofree char* ascii = g_hostname_to_ascii(decoded->c_str());
    if (!ascii) return {};
    decoded = ascii;
  }
  const auto isForbidden = [](char c) { return c < ' ' || kForbiddenInHost.contains(c); };
  if (std::ranges::any_of(*decoded, isForbidden)) return {};
  return decoded;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (!isUTF8(text)) return {};
  URL url;
  url.text_ = wellFormed(trimmed(text));
  if (url.text_.empty()) return {};

  constexpr auto flags =
      static_cast<GUriFlags>(G_URI_FLAGS_PARSE_RELAXED | G_URI_FLAGS_ENCODED | G_URI_FLAGS_NON_DNS);
  g_autofree char *scheme = nullptr, *host = nullptr;
  if (!g_uri_split(url.text_.c_str(), flags, &scheme, nullptr, &host, nullptr, nullptr, nullptr,
                   nullptr, nullptr))
    return {};
  if (scheme) url.scheme_ = url.text_.substr(0, std::string_view(scheme).size());
  if (host && *host && !url.resolveHost()) return {};
  const std::string_view resource(url.text_.data(),
                                  std::min(url.text_.find('#'), url.text_.size()));
  if (const auto mark = resource.find('?'); mark != resource.npos)
    url.query_ = resource.substr(mark + 1);
  return url;
}

bool URL::resolveHost() {
  const std::string_view written = hostIn(text_);
  if (written.starts_with('[')) {
    host_ = written.substr(1, written.find(']') - 1);
  } else if (!isWeb(text_)) {
    host_ = written;
  } else {
    host_ = asciiHost(written);
    if (!host_) return false;
    text_.replace(static_cast<std::size_t>(written.data() - text_.data()), written.size(), *host_);
  }
  return true;
}

std::string addingPercentEncoding(std::string_view value) {
  return escaped(value, kUnescapedInValue);
}

std::optional<std::string> removingPercentEncoding(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t from = 0, sign = 0;; from = sign + 3) {
    sign = text.find('%', from);
    decoded.append(text.substr(from, sign - from));
    if (sign == std::string_view::npos) break;
    if (!isEscape(text.substr(sign))) return {};
    decoded += static_cast<char>(g_ascii_xdigit_value(text[sign + 1]) * 16 +
                                 g_ascii_xdigit_value(text[sign + 2]));
  }
  if (!isUTF8(decoded)) return {};
  return decoded;
}

}  // namespace kva
