#include "sandbox/Schema.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "sandbox/ReadInteger.h"
#include "sandbox/ReadJson.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;
using Problem = std::optional<std::string>;

constexpr Field choice(std::string_view key, std::string_view choices) {
  return {.key = key, .format = Format::choice, .choices = choices};
}
constexpr Field integer(std::string_view key, std::int64_t least, std::int64_t most = INT64_MAX) {
  return {.key = key, .format = Format::integer, .least = least, .most = most};
}

constexpr Field kInit[] = {{"aid", Format::uuid},
                           {"sdkv", Format::version},
                           {"appv"},
                           choice("pl", "ios"),
                           {"osv"},
                           {"pkg"}};

// The model travels as "dmob" in a user record and as "dmod" elsewhere. A client whose user is gone
// sends the empty "uid": well formed, and known to nobody.
constexpr Field kUpdate[] = {{"aid", Format::uuid},
                             {"sdkv", Format::version},
                             {"appv"},
                             choice("pl", "ios"),
                             {"osv"},
                             {"pkg"},
                             {"idfa", Format::uuidOrEmpty},
                             choice("dbra", "apple"),
                             {"dmob"},
                             choice("conn", "2g|3g|4g"),
                             {"gsm"},
                             integer("cnst", -1, 1),
                             integer("gdpr", -1, 2),
                             integer("ccpa", -1, 2),
                             {"lcl"},
                             {"lng"},
                             {"tzn"},
                             {"uid", Format::uuidOrEmpty}};
// The same record before there is a "uid" to send.
constexpr std::span kRegister = std::span(kUpdate).first(std::size(kUpdate) - 1);

constexpr Field kBidInit[] = {{"aid", Format::uuid},
                              {"uid", Format::uuid},
                              {"adid", Format::uuid},
                              choice("pl", "ios"),
                              choice("adt", "interstitial|rewarded"),
                              {"osv"},
                              choice("dbra", "apple"),
                              {"dmod"}};
constexpr Field kBidLost[] = {{"bid", Format::uuid}, integer("lecpm", 0)};
constexpr Field kBidLoad[] = {
    {"aid", Format::uuid}, {"bid", Format::uuid}, {"plan", Format::uuid}, integer("recpm", 0)};
constexpr Field kTemplate[] = {
    {"aid", Format::uuid},
    {"tmpl"},
    {.key = "tver", .format = Format::integer, .presence = Presence::optional}};
constexpr Field kReport[] = {{"bid", Format::uuid},  integer("time", 0),     {"imp", Format::flag},
                             {"fts", Format::flag},  {"dism", Format::flag}, {"clck", Format::flag},
                             {"comp", Format::flag}, integer("quar", 0)};
constexpr Field kBidStats[] = {{"aid", Format::uuid},
                               {"uid", Format::uuidOrEmpty},
                               {.key = "stats", .format = Format::list, .items = kReport},
                               {"idfa", Format::uuid, Presence::optional}};
constexpr Field kTrack[] = {{"aid", Format::uuid},
                            {"eid", Format::text, Presence::nullable},
                            {"sdkv", Format::version},
                            {"appv"},
                            choice("pl", "ios"),
                            {"osv"},
                            choice("dbra", "apple"),
                            {"dmod"},
                            choice("conn", "2g|3g|4g"),
                            {"gsm"},
                            {"lcl"},
                            {"lng"},
                            {"tzn"},
                            {"idfa", Format::uuidOrEmpty}};

constexpr Endpoint kEndpoints[] = {
    {"/init", "GET", kInit},         {"/register", "POST", kRegister},
    {"/update", "POST", kUpdate},    {"/bid/init", "POST", kBidInit},
    {"/bid/lost", "POST", kBidLost}, {"/bid/load", "POST", kBidLoad},
    {"/template", "GET", kTemplate}, {"/bid/stats", "POST", kBidStats},
    {"/track", "POST", kTrack},
};

bool isVersion(std::string_view text) {
  bool digitBefore = false;
  for (char c : text) {
    bool digit = c >= '0' && c <= '9';
    if (!digit && (c != '.' || !digitBefore)) return false;
    digitBefore = digit;
  }
  return digitBefore;
}

bool isChoice(std::string_view text, std::string_view choices) {
  while (!choices.empty()) {
    auto bar = choices.find('|');
    if (choices.substr(0, bar) == text) return true;
    choices = bar == std::string_view::npos ? std::string_view{} : choices.substr(bar + 1);
  }
  return false;
}

std::string shown(const Json& value) {
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 80)
    text = std::string(value.type_name()) + " of " + std::to_string(text.size()) + " bytes";
  return text;
}

std::string expectation(const Field& field) {
  switch (field.format) {
    case Format::text:
      return "a string";
    case Format::uuid:
      return "a UUID";
    case Format::uuidOrEmpty:
      return "a UUID or the empty string";
    case Format::version:
      return "a version such as \"1.2.0\"";
    case Format::choice:
      return "one of " + std::string(field.choices);
    case Format::flag:
      return "true or false";
    case Format::list:
      return "a list of at least one object";
    case Format::integer:
      break;
  }
  std::string text = "an integer";
  if (field.least != INT64_MIN) text += " from " + std::to_string(field.least);
  if (field.most != INT64_MAX) text += " to " + std::to_string(field.most);
  return text;
}

bool fits(const Field& field, const Json& value) {
  const auto* text = value.get_ptr<const std::string*>();
  switch (field.format) {
    case Format::text:
      return text;
    case Format::uuid:
      return text && isUUID(*text);
    case Format::uuidOrEmpty:
      return text && (text->empty() || isUUID(*text));
    case Format::version:
      return text && isVersion(*text);
    case Format::choice:
      return text && isChoice(*text, field.choices);
    case Format::flag:
      return value.is_boolean();
    case Format::list:
      return value.is_array() && !value.empty();
    case Format::integer:
      break;
  }
  if (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX) return false;
  if (!value.is_number_integer()) return false;
  auto number = value.get<std::int64_t>();
  return number >= field.least && number <= field.most;
}

/// Checks `object` for exactly `fields`. `where` goes before each key of a message.
Problem checkObject(std::span<const Field> fields, const Json& object, const std::string& where) {
  if (!object.is_object()) return where + "expected an object, got " + shown(object);
  for (const Field& field : fields) {
    std::string name = where + std::string(field.key);
    auto found = object.find(field.key);
    if (found == object.end()) {
      if (field.presence != Presence::required) continue;
      return name + ": missing, expected " + expectation(field);
    }
    if (found->is_null() && field.presence == Presence::nullable) continue;
    if (!fits(field, *found)) {
      return name + ": expected " + expectation(field) + ", got " + shown(*found);
    }
    for (std::size_t i = 0; i < (field.format == Format::list ? found->size() : 0); ++i) {
      std::string item = name + "[" + std::to_string(i) + "].";
      if (auto problem = checkObject(field.items, (*found)[i], item)) return problem;
    }
  }
  for (const auto& [key, value] : object.items()) {
    if (std::ranges::find(fields, key, &Field::key) == fields.end()) {
      return where + key + ": not expected here";
    }
  }
  return std::nullopt;
}

/// A query knows only text; what the table calls an integer is read as one where it can be.
expected<Json, std::string> queryObject(const Endpoint& endpoint, const RawRequest& request) {
  Json object = Json::object();
  for (const auto& [key, text] : request.query) {
    if (object.contains(key)) return unexpected(key + ": given twice");
    object[key] = text;
    auto field = std::ranges::find(endpoint.fields, key, &Field::key);
    if (field == endpoint.fields.end() || field->format != Format::integer) continue;
    if (auto number = readInteger(text)) object[key] = *number;
  }
  return object;
}

bool isJsonType(std::string_view type) {
  return type == "application/json" || type.starts_with("application/json;");
}

}  // namespace

std::span<const Endpoint> endpoints() { return kEndpoints; }

const Endpoint* findEndpoint(std::string_view path) {
  auto found = std::ranges::find(kEndpoints, path, &Endpoint::path);
  return found == std::end(kEndpoints) ? nullptr : &*found;
}

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    char c = text[i];
    bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (hyphen ? c != '-' : !hex) return false;
  }
  return true;
}

expected<Json, std::string> checkRequest(const RawRequest& request) {
  const Endpoint* endpoint = findEndpoint(request.path);
  if (!endpoint) return unexpected("path: no endpoint " + request.path);
  if (request.method != endpoint->method) {
    return unexpected("method: expected " + std::string(endpoint->method) + ", got " +
                      request.method);
  }
  if (!isJsonType(request.accept)) {
    return unexpected("Accept: expected application/json, got \"" + request.accept + "\"");
  }
  if (!isJsonType(request.contentType)) {
    return unexpected("Content-Type: expected application/json, got \"" + request.contentType +
                      "\"");
  }
  Json fields;
  if (endpoint->method == "GET") {
    if (!request.body.empty()) return unexpected("body: expected none with GET");
    auto object = queryObject(*endpoint, request);
    if (!object) return object;
    fields = std::move(*object);
  } else {
    if (!request.query.empty()) return unexpected("query: expected none with POST");
    auto body = readJson(request.body);
    if (!body) return unexpected("body: expected a JSON object, got no JSON");
    fields = *std::move(body);
    if (!fields.is_object()) {
      return unexpected("body: expected a JSON object, got " + shown(fields));
    }
  }
  if (auto problem = checkObject(endpoint->fields, fields, "")) return unexpected(*problem);
  return fields;
}

}  // namespace kva::sandbox
