#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// The error record of a server's reply.
struct ServerError {
  std::int64_t code = 0;
  std::string message;

  static Result<ServerError> decode(const Json& json);
  Json toJson() const;
  /// An error with the server's code and message.
  Error error() const;
};

}  // namespace kva
