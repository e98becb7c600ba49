#include <Kelvara/user/Tester.h>

#include <utility>

#include <nlohmann/json.hpp>

namespace kva {

Result<Tester> Tester::decode(const Json& json) {
  Reader in(json);
  Tester tester{.testerId = in.required<std::string>("idfa"),
                .isTestAdsEnabled = in.optional("test", false),
                .isLogsEnabled = in.optional("log", false),
                .isSandBoxEnabled = in.optional("sandbox", false)};
  return in.finish(std::move(tester));
}

Json Tester::toJson() const {
  return {{"idfa", testerId},
          {"test", isTestAdsEnabled},
          {"suite", isTestSuiteEnabled},
          {"log", isLogsEnabled},
          {"sandbox", isSandBoxEnabled}};
}

}  // namespace kva
