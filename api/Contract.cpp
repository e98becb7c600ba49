#include "api/Contract.h"

#include <yaml-cpp/yaml.h>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/base/URL.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validator.hpp>

namespace kva::contract {

extern const char* const kDocument;

namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;
using valijson::adapters::NlohmannJsonAdapter;

/// Reads an unquoted scalar as JSON, and as a string if it is not JSON.
OrderedJson fromYaml(const YAML::Node& node) {
  if (node.IsMap()) {
    OrderedJson object = OrderedJson::object();
    for (const auto& entry : node) {
      const auto key = entry.first.as<std::string>();
      if (key == "<<") {
        object.update(fromYaml(entry.second));
      } else {
        object[key] = fromYaml(entry.second);
      }
    }
    return object;
  }
  if (node.IsSequence()) {
    OrderedJson list = OrderedJson::array();
    for (const auto& item : node) list.push_back(fromYaml(item));
    return list;
  }
  const std::string text = node.Scalar();
  const bool isQuoted = node.Tag() == "!";
  const auto value =
      isQuoted ? OrderedJson(text) : OrderedJson::parse(text, nullptr, /*allow_exceptions=*/false);
  return value.is_discarded() ? OrderedJson(text) : value;
}

/// Resolves references and "allOf". Renames "format" to "x-format", because the validator's formats
/// throw for a value that is not a string.
Json expanded(const Json& document, const Json& schema) {
  if (schema.is_array()) {
    Json list = Json::array();
    for (const Json& item : schema) list.push_back(expanded(document, item));
    return list;
  }
  if (!schema.is_object()) return schema;
  if (schema.contains("$ref")) {
    const auto pointer = schema["$ref"].get<std::string>().substr(1);
    return expanded(document, document.at(Json::json_pointer(pointer)));
  }
  Json object = Json::object();
  for (const auto& [key, value] : schema.items()) {
    if (key == "allOf") continue;
    object[key == "format" ? "x-format" : key] = expanded(document, value);
  }
  for (const Json& part : schema.value("allOf", Json::array())) {
    object.merge_patch(expanded(document, part));
  }
  return object;
}

/// Returns the schema of a query as the schema of an object.
Json querySchema(const Json& document, const Json& operation) {
  Json schema = {{"type", "object"}, {"additionalProperties", false}, {"required", Json::array()}};
  for (const Json& parameter : operation["parameters"]) {
    schema["properties"][parameter["name"]] = expanded(document, parameter["schema"]);
    if (parameter["required"] == true) schema["required"].push_back(parameter["name"]);
  }
  return schema;
}

bool isVersion(const std::string& text) {
  bool digitBefore = false;
  for (char c : text) {
    bool digit = c >= '0' && c <= '9';
    if (!digit && (c != '.' || !digitBefore)) return false;
    digitBefore = digit;
  }
  return digitBefore;
}

bool isAbsoluteURL(const std::string& text) {
  const auto url = URL::parse(text);
  return url && url->scheme() && url->host();
}

bool isTexts(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  return json.is_object() &&
         std::ranges::all_of(json, [](const Json& value) { return value.is_string(); });
}

struct Format {
  std::string_view name;
  bool (*fits)(const std::string& text);
  std::string_view expectation;
};
constexpr Format kFormats[] = {
    {"uuid", [](const std::string& text) { return isValidUUID(text); }, "a UUID"},
    {"version", isVersion, "a version such as \"1.2.0\""},
    {"uri", isAbsoluteURL, "an absolute URL"},
    {"texts", isTexts, "a string that holds a JSON object of strings"},
};

const Format* findFormat(const std::string& name) {
  auto found = std::ranges::find(kFormats, name, &Format::name);
  return found == std::end(kFormats) ? nullptr : &*found;
}

/// Checks the formats above; any other format, such as "int64", accepts every value.
class FormatConstraint final : public valijson::constraints::PolyConstraint {
 public:
  explicit FormatConstraint(const Format* format) : format_(format) {}
  bool validate(const valijson::adapters::Adapter& target, const std::vector<std::string>& context,
                valijson::ValidationResults* results) const override {
    if (!format_ || !target.isString() || format_->fits(target.asString())) return true;
    if (results) results->pushError(context, "format");
    return false;
  }

 private:
  Constraint* cloneInto(void* at) const override { return new (at) FormatConstraint(*this); }
  std::size_t sizeOf() const override { return sizeof(FormatConstraint); }
  const Format* format_;
};

class FormatBuilder final : public valijson::ConstraintBuilder {
 public:
  valijson::constraints::Constraint* make(const valijson::adapters::Adapter& name) const override {
    return new FormatConstraint(findFormat(name.asString()));
  }
};

std::string join(const std::vector<std::string>& parts, const char* between) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : between) + part;
  return text;
}

std::vector<std::string> typesOf(const Json& schema) {
  const Json type = schema.value("type", Json::array());
  return type.is_string() ? std::vector{type.get<std::string>()}
                          : type.get<std::vector<std::string>>();
}

std::string expectedType(const Json& schema, const std::string& type) {
  if (type == "boolean") return "true or false";
  if (type == "object") return "an object";
  if (type == "array") {
    return schema.contains("minItems") ? "a list of at least one object" : "a list";
  }
  if (type == "null") return "null";
  if (type == "string") return schema.contains("minLength") ? "a string with text" : "a string";
  std::string text = "an integer";
  if (schema.contains("minimum")) text += " from " + schema["minimum"].dump();
  if (schema.contains("maximum")) text += " to " + schema["maximum"].dump();
  return text;
}

std::string expectation(const Json& schema) {
  if (schema.contains("enum")) {
    return "one of " + join(schema["enum"].get<std::vector<std::string>>(), "|");
  }
  if (schema.value("maxLength", 1) == 0) return "the empty string";
  std::vector<std::string> choices;
  for (const Json& choice : schema.value("anyOf", Json::array())) {
    choices.push_back(expectation(choice));
  }
  if (!choices.empty()) return join(choices, " or ");
  const Format* format = findFormat(schema.value("x-format", ""));
  if (format) choices.emplace_back(format->expectation);
  for (const std::string& type : typesOf(schema)) {
    if (!format || type == "null") choices.push_back(expectedType(schema, type));
  }
  return join(choices, " or ");
}

std::string shown(const Json& value) {
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 80)
    text = std::string(value.type_name()) + " of " + std::to_string(text.size()) + " bytes";
  return text;
}

std::string memberOf(const std::string& field, const std::string& key) {
  return field.empty() ? key : field + "." + key;
}

/// A place in a value, with its schema.
struct Place {
  std::string field;
  const Json* schema;
  const Json* value;

  /// Follows the validator's path, a list of "[key]" and "[index]" after the root.
  static std::optional<Place> at(const Json& schema, const Json& value,
                                 const std::vector<std::string>& context) {
    Place place{"", &schema, &value};
    for (std::size_t i = 1; i < context.size(); ++i) {
      const std::string step = context[i].substr(1, context[i].size() - 2);
      if (!(place.value->is_array() ? place.enterItem(step) : place.enterMember(step))) return {};
    }
    return place;
  }

 private:
  bool enterItem(const std::string& index) {
    if (!schema->contains("items")) return false;
    field += "[" + index + "]";
    value = &(*value)[std::stoul(index)];
    schema = &(*schema)["items"];
    return true;
  }
  bool enterMember(const std::string& key) {
    static const Json none = Json::object();
    if (!value->is_object() || !value->contains(key)) return false;
    const Json& named = schema->contains("properties") ? (*schema)["properties"] : none;
    const Json& others =
        schema->contains("additionalProperties") ? (*schema)["additionalProperties"] : none;
    field = memberOf(field, key);
    value = &(*value)[key];
    schema = named.contains(key) ? &named[key] : &others;
    return schema->is_object();
  }
};

/// Returns the missing property of a validator's message; empty for other messages.
std::string missingProperty(const std::string& message) {
  constexpr std::string_view kBefore = "Missing required property '";
  if (!message.starts_with(kBefore)) return {};
  return message.substr(kBefore.size(), message.rfind('\'') - kBefore.size());
}

Breach missing(const Place& place, const std::string& key) {
  const Json schema = place.schema->value("properties", Json::object()).value(key, Json::object());
  const std::string expected = expectation(schema);
  return {memberOf(place.field, key),
          "missing" + (expected.empty() ? "" : ", expected " + expected),
          schema.value("description", "")};
}

/// Returns the breaches at a place that the validator has refused. The validator reports items of a
/// list and members of an object separately, so here a list breaks the contract only by its length,
/// and an object only by unexpected members.
std::vector<Breach> breachesAt(const Place& place) {
  const Json& schema = *place.schema;
  auto types = typesOf(schema);
  if (place.value->is_array() && std::ranges::find(types, "array") != types.end() &&
      place.value->size() >= schema.value("minItems", 0U))
    return {};
  if (!place.value->is_object() || std::ranges::find(types, "object") == types.end()) {
    Json strict = schema;
    if (place.value->is_null()) {
      std::erase(types, "null");
      strict["type"] = types;
    }
    return {{place.field, "expected " + expectation(strict) + ", got " + shown(*place.value),
             schema.value("description", "")}};
  }
  std::vector<Breach> breaches;
  const Json properties = schema.value("properties", Json::object());
  if (schema.value("additionalProperties", Json()) != false) return breaches;
  for (const auto& [key, value] : place.value->items()) {
    if (properties.contains(key)) continue;
    breaches.push_back(
        {memberOf(place.field, key), "not expected here", schema.value("description", "")});
  }
  return breaches;
}

}  // namespace

/// A schema, prepared for validation.
struct Contract::Shape {
  Json schema;
  valijson::Schema prepared;

  explicit Shape(Json expandedSchema) : schema(std::move(expandedSchema)) {
    valijson::SchemaParser parser;
    parser.addConstraintBuilder("x-format", new FormatBuilder);  // the parser owns it
    parser.populateSchema(NlohmannJsonAdapter(schema), prepared);
  }

  std::vector<Breach> check(const Json& value) const {
    valijson::Validator validator;
    valijson::ValidationResults results;
    if (validator.validate(prepared, NlohmannJsonAdapter(value), &results)) return {};
    std::vector<Breach> breaches;
    std::set<std::pair<std::vector<std::string>, std::string>> seen;
    for (const auto& error : results) {
      const std::string key = missingProperty(error.description);
      const auto place = Place::at(schema, value, error.context);
      if (!place || !seen.emplace(error.context, key).second) continue;
      std::ranges::copy(key.empty() ? breachesAt(*place) : std::vector{missing(*place, key)},
                        std::back_inserter(breaches));
    }
    return breaches;
  }
};

struct Contract::Call {
  Call(Json requestSchema, Json replySchema)
      : request(std::move(requestSchema)), reply(std::move(replySchema)) {}
  Shape request, reply;
};

const Contract& Contract::current() {
  static const Contract contract;
  return contract;
}

Contract::Contract() {
  const OrderedJson ordered = fromYaml(YAML::Load(kDocument));
  documentText_ = ordered.dump(2) + "\n";
  document_ = ordered;
  constexpr const char* kSchema = "/content/application~1json/schema";
  for (const auto& [path, unused] : ordered["paths"].items()) {
    const Json& operations = document_["paths"][path];
    const bool isGet = operations.contains("get");
    const Json& operation = operations[isGet ? "get" : "post"];
    endpoints_.push_back({path, isGet ? "GET" : "POST"});
    Json request =
        isGet ? querySchema(document_, operation)
              : expanded(document_, operation["requestBody"]).at(Json::json_pointer(kSchema));
    Json reply =
        expanded(document_, operation["responses"]["default"]).at(Json::json_pointer(kSchema));
    calls_.push_back(std::make_unique<Call>(std::move(request), std::move(reply)));
  }
}

Contract::~Contract() = default;

const Endpoint* Contract::find(std::string_view path) const {
  auto found = std::ranges::find(endpoints_, path, &Endpoint::path);
  return found == endpoints_.end() ? nullptr : &*found;
}

const Contract::Call& Contract::call(std::string_view path) const {
  const Endpoint* endpoint = find(path);
  if (!endpoint) fatal("the contract has no endpoint " + std::string(path));
  return *calls_[static_cast<std::size_t>(endpoint - endpoints_.data())];
}

const Json& Contract::requestSchema(std::string_view path) const {
  return call(path).request.schema;
}

std::vector<Breach> Contract::checkRequest(std::string_view path, const Json& fields) const {
  return call(path).request.check(fields);
}

std::vector<Breach> Contract::checkReply(std::string_view path, const Json& envelope) const {
  return call(path).reply.check(envelope);
}

std::string Contract::rule(std::string_view path, std::string_view name) const {
  const Json& holder =
      path.empty() ? document_["info"] : document_["paths"][std::string(path)].begin().value();
  const Json& rules = holder["x-rules"];
  if (!rules.contains(name)) fatal("the contract has no rule " + std::string(name));
  return rules[std::string(name)];
}

}  // namespace kva::contract
