#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/base/URL.h>

namespace kva {

/// The MD5 digest of the text's UTF-8 bytes, as 32 lower-case hexadecimal digits.
std::string md5Value(std::string_view text);

/// The text with every occurrence of `target`, which is not empty, replaced as it stands.
std::string replacingOccurrences(std::string_view text, std::string_view target,
                                 std::string_view replacement);

/// The text with the letters A to Z in lower case, whatever the locale.
std::string lowercased(std::string_view text);

/// The text with the backslash escapes \0 \t \n \r \" \' and \\ turned back into what they stand
/// for, each in the whole text before the next, the doubled backslash last.
std::string unescaped(std::string_view text);

/// True for the 8-4-4-4-12 hexadecimal form with hyphens, in either case.
bool isValidUUID(std::string_view text);

/// Seconds since 1970 as whole milliseconds, halves away from zero. A time beyond the 64-bit range
/// is fatal.
std::int64_t millisecondsSince1970(double secondsSince1970);

/// True when every piece of the URL's query, if it has one, holds a "=".
bool hasWellFormedQuery(const URL& url);

/// The URL's query as names and decoded values; absent without one. The value ends at a second "=",
/// "+" means a space, and a value that cannot be decoded counts as "". A query that is not well
/// formed is fatal: whoever reads a page's URL checks first.
std::optional<std::map<std::string, std::string>> queryDictionary(const URL& url);

}  // namespace kva
