#pragma once

#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Json.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <platform/headless/Headless.h>

namespace kva {

/// A device with a process of the SDK on it, not started.
class AdsTest : public testing::Test {
 protected:
  static inline const std::string kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  static inline const std::string kAdUnit = "0b6f3f0e-1d6c-4f6e-8a0e-5a0c6b1d2e3f";
  static inline const std::string kPlanA = "aaaaaaaa-0000-4000-8000-000000000001";
  static inline const std::string kPlanB = "bbbbbbbb-0000-4000-8000-000000000002";
  static inline const std::string kBid = "cccccccc-0000-4000-8000-000000000003";

  headless::Headless h;
  std::optional<Runtime> runtime{h.platform()};

  void start() {
    h.server.reply("/init", headless::envelope(R"({"aid": "a", "pp": "https://host.test/privacy",
        "sett": {"nfsp": 3000}})"));
    Kelvara::start(kAppId, [](std::optional<Error>) {});
    ASSERT_TRUE(h.time.runUntil([] { return Kelvara::isInitialized(); }));
  }
  /// The same device, a new process, not started.
  void restart() {
    runtime.reset();
    runtime.emplace(h.platform());
  }
  void setNetwork(bool reachable) {
    h.reachability.setFlags(reachable ? headless::HeadlessReachability::kReachable : 0);
    h.time.run();
  }
  Json stored(const char* key) {
    const auto bytes = h.defaults.get<Bytes>(key);
    return bytes ? Json::parse(asText(*bytes)) : Json();
  }

  /// An ad with everything in it.
  static Json adJson() {
    return Json::parse(R"({
      "bid": "bid", "tmpl": "t1",
      "crea": {"id": "c1", "adt": "rewarded", "ctyp": "video", "adur": 5, "titl": "Title",
               "bton": "{\"en\": \"Install\", \"tr\": \"Kur\"}", "deta": "{\"tr\": \"Ayrinti\"}",
               "curl": "https://click.test/?a=1", "icon": "https://cdn.test/icon.png",
               "shouldCareSafeArea": true},
      "fls": [{"id": "f1", "furl": "https://cdn.test/a.mp4", "ornt": "landscape", "ftyp": "main"},
              {"id": "f2", "furl": "a://end", "ornt": "portrait", "ftyp": "end_card"}]})");
  }
};

}  // namespace kva
