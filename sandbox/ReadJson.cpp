#include "sandbox/ReadJson.h"

#include <nlohmann/json.hpp>

namespace kva::sandbox {

std::optional<nlohmann::json> readJson(std::string_view text) {
  using Json = nlohmann::json;
  constexpr int kDeepest = 100;
  bool isTooDeep = false;
  auto json = Json::parse(
      text,
      [&](int depth, Json::parse_event_t, const Json&) {
        isTooDeep |= depth > kDeepest;
        return !isTooDeep;
      },
      /*allow_exceptions=*/false);
  if (isTooDeep || json.is_discarded()) return std::nullopt;
  return json;
}

}  // namespace kva::sandbox
