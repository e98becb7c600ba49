#pragma once

#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// A test device of the application and the features that are enabled for it.
struct Tester {
  std::string testerId;  ///< the MD5 digest of the device's advertising identifier
  bool isTestAdsEnabled = false;
  bool isTestSuiteEnabled = false;  ///< encoded, but never decoded
  bool isLogsEnabled = false;
  bool isSandBoxEnabled = false;

  static Result<Tester> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Tester&) const = default;
};

}  // namespace kva
