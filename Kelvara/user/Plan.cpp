#include <Kelvara/user/Plan.h>

#include <utility>

#include <nlohmann/json.hpp>

namespace kva {

Result<Plan> Plan::decode(const Json& json) {
  Reader in(json);
  Plan plan{.planId = in.required<std::string>("plan"),
            .frequencyCapDaily = in.required<std::int64_t>("capd"),
            .frequencyCapHourly = in.required<std::int64_t>("caph"),
            .ecpm = in.required<std::int64_t>("ecpm")};
  return in.finish(std::move(plan));
}

Json Plan::toJson() const {
  return {
      {"plan", planId}, {"capd", frequencyCapDaily}, {"caph", frequencyCapHourly}, {"ecpm", ecpm}};
}

}  // namespace kva
