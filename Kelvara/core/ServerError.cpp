#include <Kelvara/core/ServerError.h>

#include <utility>

#include <Kelvara/core/SDKHelper.h>
#include <nlohmann/json.hpp>

namespace kva {

Result<ServerError> ServerError::decode(const Json& json) {
  Reader in(json);
  ServerError error{.code = in.required<std::int64_t>("code"),
                    .message = in.required<std::string>("msg")};
  return in.finish(std::move(error));
}

Json ServerError::toJson() const { return {{"code", code}, {"msg", message}}; }

Error ServerError::error() const { return SDKHelper::Error::error(code, message); }

}  // namespace kva
