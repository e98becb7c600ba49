#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/core/ServerError.h>

namespace kva {

/// The envelope of every reply. All four keys are required.
template <class T>
struct Response {
  bool isSuccess = false;
  std::optional<ServerError> error;
  std::optional<T> data;
  std::int64_t time = 0;  ///< the server's clock, milliseconds since 1970

  static Result<Response> decode(const Json& json) {
    Reader in(json);
    Response response{.isSuccess = in.required<bool>("ok"),
                      .error = in.nullable<ServerError>("err"),
                      .data = in.nullable<T>("data"),
                      .time = in.required<std::int64_t>("time")};
    return in.finish(std::move(response));
  }
};

/// The reply to a registration and to an update of the user.
struct RegisterResponse {
  std::optional<std::string> applicationId;
  std::string userId;

  static Result<RegisterResponse> decode(const Json& json);
};

}  // namespace kva
