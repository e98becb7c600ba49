#include <Kelvara/api/Response.h>

#include <nlohmann/json.hpp>

namespace kva {

Result<RegisterResponse> RegisterResponse::decode(const Json& json) {
  Reader in(json);
  RegisterResponse response{.applicationId = in.optional<std::string>("aid"),
                            .userId = in.required<std::string>("uid")};
  return in.finish(std::move(response));
}

}  // namespace kva
