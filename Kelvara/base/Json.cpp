#include <Kelvara/base/Json.h>

#include <cmath>
#include <limits>
#include <new>
#include <utility>

#include <nlohmann/json.hpp>

namespace kva {
namespace {

constexpr std::size_t kDeepestNesting = 512;

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

/// Builds the value that a text describes, and refuses one that is nested too deeply. The hook that
/// the library's parser has for this makes each parse slower.
// NOLINTNEXTLINE(bugprone-exception-escape): the library's own move of a value is noexcept.
class Builder {
 public:
  Json take() { return std::move(root_); }
  const std::string& error() const { return error_; }

  // The library calls these. False ends the parse.
  bool null() { return add(nullptr); }
  bool boolean(bool value) { return add(value); }
  bool number_integer(std::int64_t value) { return add(value); }
  bool number_unsigned(std::uint64_t value) { return add(value); }
  bool number_float(double value, const std::string&) { return add(value); }
  bool string(const std::string& value) { return add(value); }
  bool binary(const Json::binary_t&) { return false; }  // no JSON text has one
  bool start_object(std::size_t) { return open(Json::value_t::object); }
  bool start_array(std::size_t) { return open(Json::value_t::array); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool key(const std::string& name) {
    member_ = &open_.back()->get_ref<Json::object_t&>()[name];
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const std::exception& error) {
    error_ = error.what();
    return false;
  }

 private:
  template <class Value>
  Json& place(Value&& value) {
    if (open_.empty()) return root_ = Json(std::forward<Value>(value));
    if (!open_.back()->is_array()) return *member_ = Json(std::forward<Value>(value));
    return open_.back()->get_ref<Json::array_t&>().emplace_back(std::forward<Value>(value));
  }
  template <class Value>
  bool add(Value&& value) {
    place(std::forward<Value>(value));
    return true;
  }
  bool open(Json::value_t kind) {
    if (open_.size() == kDeepestNesting) {
      error_ = "nested too deeply";
      return false;
    }
    open_.push_back(&place(kind));
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  Json root_;
  std::vector<Json*> open_;  ///< the lists and objects around the next value
  Json* member_ = nullptr;   ///< in the innermost object, for the next value
  std::string error_;
};

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
  try {
    Builder builder;
    if (!Json::sax_parse(text, &builder)) return failure(Error("Kelvara", -1, builder.error()));
    return builder.take();
  } catch (const std::bad_alloc& error) {
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
  const auto found = object_.find(std::string_view(key));
  return found == object_.end() ? nullptr : &*found;
}

bool Reader::isArray(const Json& value) { return value.is_array(); }
std::size_t Reader::sizeOf(const Json& value) { return value.size(); }
const Json& Reader::element(const Json& value, std::size_t index) { return value[index]; }

}  // namespace kva
