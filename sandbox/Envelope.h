#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "sandbox/Scenario.h"
#include "sandbox/Service.h"

namespace kva::sandbox {

/// The answer of an endpoint: the envelope, as a scenario changes it.
struct Envelope {
  std::string verdict{};  ///< "ok", or the code and message of the error record
  int status = 200;       ///< HTTP
  std::string body{};

  static Envelope of(const Service::Result& result, std::int64_t time, const Scenario& scenario);
};

}  // namespace kva::sandbox
