#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/base/Replacements.h>
#include <Kelvara/base/URL.h>

namespace kva {

/// The MD5 digest of the text's UTF-8 bytes, as 32 lower-case hexadecimal digits.
std::string md5Value(std::string_view text);

/// Replaces every occurrence of `target`, which must not be empty, with `replacement`.
std::string replacingOccurrences(std::string_view text, std::string_view target,
                                 std::string_view replacement);

/// The text with the letters A to Z in lower case, independent of the locale.
std::string lowercased(std::string_view text);

/// What makes a text unescaped: the backslash escapes \0 \t \n \r \" \' and \\ and their
/// characters, in the order in which they are replaced, each in the whole text before the next one.
inline constexpr Replacement kUnescaped[] = {
    {"\\0", {"\0", 1}}, {"\\t", "\t"}, {"\\n", "\n"},  {"\\r", "\r"},
    {"\\\"", "\""},     {"\\'", "'"},  {"\\\\", "\\"},
};

/// True for the 8-4-4-4-12 hexadecimal form with hyphens, in either case.
bool isValidUUID(std::string_view text);

/// Seconds since 1970 as whole milliseconds, halves away from zero. A time beyond the 64-bit range
/// is fatal.
std::int64_t millisecondsSince1970(double secondsSince1970);

/// True if every piece of the URL's query contains a "=", or there is no query.
bool hasWellFormedQuery(const URL& url);

/// The names and decoded values of the URL's query; absent if there is no query. A value ends at a
/// second "=". "+" is a space. A value that cannot be decoded is "". A malformed query is fatal:
/// check the URLs of a page with `hasWellFormedQuery` first.
std::optional<std::map<std::string, std::string>> queryDictionary(const URL& url);

}  // namespace kva
