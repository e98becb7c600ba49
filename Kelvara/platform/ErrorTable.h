#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include <Kelvara/Error.h>

namespace kva {

/// An error that the SDK reports, and its remedy.
struct KnownError {
  std::string_view domain;
  std::int64_t code;
  std::string_view text;  ///< " N " stands for a number; empty: the server's text
  std::string_view hint;
};

/// All of them. If several share a code, the first is the usual one. docs/errors.md lists the same
/// errors.
std::span<const KnownError> knownErrors();

/// The known error with this code, and with this text if it is not empty, as the SDK reports errors
/// whose text is its own: the text is followed by the remedy. Another text has no remedy.
Error errorWithRemedy(std::string_view domain, std::int64_t code, std::string_view text = {});

}  // namespace kva
