#pragma once

#include <cstdint>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// The error record of a reply.
struct ServerError {
  std::int64_t code = 0;
  std::string message;

  static Result<ServerError> decode(const Json& json);
  Json toJson() const;
  /// With the server's own code.
  Error error() const;
};

}  // namespace kva
