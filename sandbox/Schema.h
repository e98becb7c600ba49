#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

#include "sandbox/Expected.h"

/// What each endpoint expects of a request, as a table, and the check against it.
namespace kva::sandbox {

enum class Format {
  text,
  uuid,
  uuidOrEmpty,
  version,  ///< numbers between dots, "1.2.0"
  choice,   ///< one of `choices`
  integer,  ///< from `least` to `most`
  flag,
  list,  ///< a list of at least one object with `items`
};

enum class Presence { required, optional, nullable };

struct Field {
  std::string_view key;
  Format format = Format::text;
  Presence presence = Presence::required;
  std::string_view choices = {};  ///< between bars: "2g|3g|4g"
  std::int64_t least = INT64_MIN, most = INT64_MAX;
  std::span<const Field> items = {};
};

struct Endpoint {
  std::string_view path, method;
  std::span<const Field> fields;
};

/// A request as it came, before any trust in it.
struct RawRequest {
  std::string method, path;  ///< path below "/api/v1"
  std::multimap<std::string, std::string> query;
  std::string accept, contentType;
  std::string body;
};

std::span<const Endpoint> endpoints();
const Endpoint* findEndpoint(std::string_view path);

/// The request's fields as one JSON object (of a GET, its query), or a message that names the
/// field that is wrong and what was expected of it. Never throws, whatever the bytes.
expected<nlohmann::json, std::string> checkRequest(const RawRequest& request);

bool isUUID(std::string_view text);

}  // namespace kva::sandbox
