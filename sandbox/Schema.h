#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "api/Contract.h"
#include "sandbox/Expected.h"

/// Checks requests against the contract.
namespace kva::sandbox {

using contract::Endpoint;

/// A request before any check.
struct RawRequest {
  std::string method, path;  ///< path below "/api/v1"
  std::multimap<std::string, std::string> query;
  std::string accept, contentType;
  std::string body;
};

inline const std::vector<Endpoint>& endpoints() {
  return contract::Contract::current().endpoints();
}
inline const Endpoint* findEndpoint(std::string_view path) {
  return contract::Contract::current().find(path);
}

/// Returns the request's fields as one JSON object (of a GET, its query), or a message with the
/// wrong field and its expected value. Never throws.
expected<nlohmann::json, std::string> checkRequest(const RawRequest& request);

}  // namespace kva::sandbox
