#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "sandbox/Expected.h"

namespace kva::sandbox {

/// How an endpoint answers. No-fill, an error and not-ok replace the endpoint's answer, and the
/// endpoint changes nothing. With the others the server carries out the request and spoils the
/// answer. A request that fails its checks is refused as usual, and its refusal is spoiled.
enum class Behaviour {
  normal,
  noFill,       ///< "no-fill": ok with an empty list of plans; "/bid/init" alone
  serverError,  ///< "error": not ok with an error record
  notOk,        ///< "not-ok": not ok without an error record
  missingKey,   ///< "missing": `key` is left out
  wrongType,    ///< "wrong-type": `key` holds a value of another JSON type
  replaced,     ///< "replace": `key` holds `value`
  malformed,    ///< "malformed": a body that is not JSON
  emptyBody,    ///< "empty"
  http500,      ///< "http-500": status 500 with the valid envelope
  reset,        ///< "reset": the connection is reset before any answer
  hang,         ///< "hang": no answer for as long as the client waits
  // The bytes of the whole answer are spoiled on their way:
  throttled,       ///< "throttled": it arrives in 16 pieces, 2 ms apart
  truncated,       ///< "truncated": half of the announced body, then the connection closes
  cutHead,         ///< "cut-head": half of the header, then the connection closes
  resetBody,       ///< "reset-body": half of the announced body, then the connection is reset
  garbageBefore,   ///< "garbage-before": bytes that are not HTTP precede it
  garbageWithin,   ///< "garbage-within": some bytes of the body are replaced by 0xFF
  repeatedBytes,   ///< "repeated-bytes": a piece of the body is sent twice, and its end is missing
  repeatedAnswer,  ///< "repeated-answer": it is sent twice
};

/// The name that the command line and the control endpoints use.
std::string_view name(Behaviour behaviour);

struct Scenario {
  Behaviour behaviour = Behaviour::normal;
  std::chrono::milliseconds delay{0};   ///< before anything else happens
  std::optional<std::int64_t> times{};  ///< how many requests it holds for; absent: all
  std::int64_t code = 500;              ///< of serverError
  std::string message = "Internal server error.";
  std::string key{};    ///< of missingKey, wrongType and replaced: a path such as
                        ///< "time" or "data.plans.0.ecpm"
  std::string value{};  ///< of replaced: JSON text

  /// Reads "NAME[:ARG[:ARG]][,delay:MS][,times:N]": "error:503:Busy,times:2", "missing:data.bid",
  /// "replace:data.sett.sndm:false".
  static expected<Scenario, std::string> parse(std::string_view text);
  /// Reads {"scenario": "error", "code": 503, "message": "Busy", "key": "", "value": 0,
  /// "delay": 0, "times": 2}.
  static expected<Scenario, std::string> fromJson(const nlohmann::json& json);
  nlohmann::json toJson() const;
};

}  // namespace kva::sandbox
