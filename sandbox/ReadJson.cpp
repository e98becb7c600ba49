#include "sandbox/ReadJson.h"

#include <cstdint>
#include <nlohmann/json.hpp>

namespace kva::sandbox {

std::optional<nlohmann::json> readJson(std::string_view text) {
  using Json = nlohmann::json;
  constexpr int kDeepest = 100;
  bool isTooDeep = false;
  auto json = Json::parse(
      text,
      [&](int depth, Json::parse_event_t event, Json& value) {
        isTooDeep |= depth > kDeepest;
        if (event == Json::parse_event_t::value && value.is_number_unsigned() &&
            value.get<std::uint64_t>() > INT64_MAX)
          value = value.get<double>();
        return !isTooDeep;
      },
      /*allow_exceptions=*/false);
  if (isTooDeep || json.is_discarded()) return std::nullopt;
  return json;
}

}  // namespace kva::sandbox
