#include "sandbox/Schema.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "sandbox/ReadInteger.h"
#include "sandbox/ReadJson.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

/// A query holds only text. Reads the contract's integers as numbers where they are.
expected<Json, std::string> queryObject(const RawRequest& request) {
  const Json& properties = contract::Contract::current().requestSchema(request.path)["properties"];
  Json object = Json::object();
  for (const auto& [key, text] : request.query) {
    if (object.contains(key)) return unexpected(key + ": given twice");
    object[key] = text;
    if (!properties.contains(key) || properties[key]["type"] != "integer") continue;
    if (auto number = readInteger(text)) object[key] = *number;
  }
  return object;
}

expected<Json, std::string> fieldsOf(const Endpoint& endpoint, const RawRequest& request) {
  if (endpoint.method == "GET") {
    if (!request.body.empty()) return unexpected("body: expected none with GET");
    return queryObject(request);
  }
  if (!request.query.empty()) return unexpected("query: expected none with POST");
  auto body = readJson(request.body);
  if (!body) return unexpected("body: expected an object, got no JSON");
  return *std::move(body);
}

bool isJsonType(std::string_view type) {
  return type == "application/json" || type.starts_with("application/json;");
}

}  // namespace

expected<Json, std::string> checkRequest(const RawRequest& request) {
  const Endpoint* endpoint = findEndpoint(request.path);
  if (!endpoint) return unexpected("path: no endpoint " + request.path);
  if (request.method != endpoint->method) {
    return unexpected("method: expected " + endpoint->method + ", got " + request.method);
  }
  if (!isJsonType(request.accept)) {
    return unexpected("Accept: expected application/json, got \"" + request.accept + "\"");
  }
  if (!isJsonType(request.contentType)) {
    return unexpected("Content-Type: expected application/json, got \"" + request.contentType +
                      "\"");
  }
  auto fields = fieldsOf(*endpoint, request);
  if (!fields) return fields;
  auto breaches = contract::Contract::current().checkRequest(request.path, *fields);
  if (!breaches.empty()) return unexpected(breaches.front().text());
  return fields;
}

}  // namespace kva::sandbox
