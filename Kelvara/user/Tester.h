#pragma once

#include <string>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Result.h>

namespace kva {

/// One test device of the application, with what is switched on for it.
struct Tester {
  std::string testerId;  ///< the MD5 digest of the device's advertising identifier
  bool isTestAdsEnabled = false;
  bool isTestSuiteEnabled = false;  ///< written, but never taken from the server
  bool isLogsEnabled = false;
  bool isSandBoxEnabled = false;

  static Result<Tester> decode(const Json& json);
  Json toJson() const;
  bool operator==(const Tester&) const = default;
};

}  // namespace kva
