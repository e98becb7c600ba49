#include <Kelvara/base/Json.h>

#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

namespace kva {
namespace {

constexpr int kDeepestNesting = 512;

std::optional<std::int64_t> integer(const Json& value) {
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return {};
    return static_cast<std::int64_t>(number);
  }
  if (value.is_number_integer()) return value.get<std::int64_t>();
  if (value.is_number_float()) {
    const double number = value.get<double>();
    // 2^63 is the first double beyond the range; its negative is the last one in it.
    constexpr double limit = 9223372036854775808.0;
    if (number == std::trunc(number) && number >= -limit && number < limit)
      return static_cast<std::int64_t>(number);
  }
  return {};
}

template <class T>
std::optional<std::map<std::string, T>> mapOf(const Json& value) {
  if (!value.is_object()) return {};
  std::map<std::string, T> entries;
  for (const auto& [key, member] : value.items()) {
    auto entry = readJson<T>(member);
    if (!entry) return {};
    entries.emplace(key, *std::move(entry));
  }
  return entries;
}

}  // namespace

Result<Json> parseJson(std::string_view text) {
  struct TooDeep : std::exception {
    const char* what() const noexcept override { return "nested too deeply"; }
  };
  try {
    return Json::parse(text, [](int depth, Json::parse_event_t, const Json&) {
      if (depth > kDeepestNesting) throw TooDeep();
      return true;
    });
  } catch (const std::exception& error) {
    return failure(Error("Kelvara", -1, error.what()));
  }
}

std::string jsonText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

template <>
std::optional<std::string> readJson(const Json& value) {
  if (!value.is_string()) return {};
  return value.get<std::string>();
}

template <>
std::optional<bool> readJson(const Json& value) {
  if (!value.is_boolean()) return {};
  return value.get<bool>();
}

template <>
std::optional<std::int64_t> readJson(const Json& value) {
  return integer(value);
}

template <>
std::optional<double> readJson(const Json& value) {
  if (!value.is_number()) return {};
  return value.get<double>();
}

template <>
std::optional<URL> readJson(const Json& value) {
  auto text = readJson<std::string>(value);
  return text ? URL::parse(*text) : std::nullopt;
}

template <>
std::optional<std::vector<std::string>> readJson(const Json& value) {
  if (!value.is_array()) return {};
  std::vector<std::string> texts;
  for (const auto& element : value) {
    if (!element.is_string()) return {};
    texts.push_back(element.get<std::string>());
  }
  return texts;
}

template <>
std::optional<std::map<std::string, std::int64_t>> readJson(const Json& value) {
  return mapOf<std::int64_t>(value);
}

template <>
std::optional<std::map<std::string, std::string>> readJson(const Json& value) {
  return mapOf<std::string>(value);
}

Json orNull(const std::optional<std::string>& text) { return text ? Json(*text) : Json(); }

Reader::Reader(const Json& object) : object_(object) {
  if (!object.is_object()) error_ = Error("Kelvara", -1, "not a JSON object");
}

bool Reader::isNull(const char* key) const {
  const Json* value = member(key);
  return value && value->is_null();
}

void Reader::fail(const char* key) {
  if (!error_) error_ = Error("Kelvara", -1, "\"" + std::string(key) + "\" is missing or mistyped");
}

const Json* Reader::member(const char* key) const {
  if (!object_.is_object()) return nullptr;
  auto found = object_.find(key);
  return found == object_.end() ? nullptr : &*found;
}

bool Reader::isArray(const Json& value) { return value.is_array(); }
std::size_t Reader::sizeOf(const Json& value) { return value.size(); }
const Json& Reader::element(const Json& value, std::size_t index) { return value[index]; }

}  // namespace kva
