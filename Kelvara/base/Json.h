#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <Kelvara/base/Result.h>
#include <Kelvara/base/URL.h>

namespace kva {

using Json = nlohmann::json;

/// Parses one JSON text. Fails if it is not RFC 8259 JSON in UTF-8 or is nested deeper than 512
/// levels, which no ad server sends. The error has the parser's description.
Result<Json> parseJson(std::string_view text);

/// The compact JSON text. Malformed UTF-8 is replaced.
std::string jsonText(const Json& json);

/// Reads one value by its strict type: a boolean is not a number, 5.0 is an integer, 5.5 is not.
/// T is std::string, bool, std::int64_t, double, URL, std::vector<std::string>,
/// std::map<std::string, std::int64_t> or std::map<std::string, std::string>.
template <class T>
std::optional<T> readJson(const Json& value);

/// The text, or JSON null if it is absent.
Json orNull(const std::optional<std::string>& text);

template <class T>
concept JsonRecord = requires(const Json& json) {
  { T::decode(json) } -> std::same_as<Result<T>>;
};

/// Decodes a record member by member. A failed `required` records the error and returns a default
/// value; `finish` returns the record, or the first error with its key.
class Reader {
 public:
  explicit Reader(const Json& object);

  template <class T>
  T required(const char* key) {
    if (auto found = read<T>(key)) return *std::move(found);
    fail(key);
    return T{};
  }

  /// For a T that is converted from another type, such as an enumeration from its raw value.
  /// Returns `otherwise` on failure.
  template <class T, class From, class Convert>
  T requiredAs(const char* key, Convert convert, T otherwise) {
    if (auto raw = read<From>(key)) {
      if (std::optional<T> value = convert(*raw)) return *std::move(value);
    }
    fail(key);
    return otherwise;
  }

  /// A member that is missing, null or of another type is absent, without an error.
  template <class T>
  std::optional<T> optional(const char* key) const {
    return read<T>(key);
  }

  template <class T>
  T optional(const char* key, T otherwise) const {
    return read<T>(key).value_or(std::move(otherwise));
  }

  /// Absent unless every element of the list decodes.
  template <JsonRecord T>
  std::optional<std::vector<T>> optionalList(const char* key) const {
    const Json* list = member(key);
    if (!list || !isArray(*list)) return std::nullopt;
    std::vector<T> records;
    records.reserve(sizeOf(*list));
    for (std::size_t i = 0; i < sizeOf(*list); ++i) {
      auto record = T::decode(element(*list, i));
      if (!record) return std::nullopt;
      records.push_back(*std::move(record));
    }
    return records;
  }

  template <JsonRecord T>
  std::vector<T> requiredList(const char* key) {
    if (auto list = optionalList<T>(key)) return *std::move(list);
    fail(key);
    return {};
  }

  /// The key must exist; its value may be null.
  template <class T>
  std::optional<T> nullable(const char* key) {
    auto value = read<T>(key);
    if (!value && !isNull(key)) fail(key);
    return value;
  }

  void fail(const char* key);

  template <class T>
  Result<T> finish(T record) {
    if (error_) return failure(*error_);
    return record;
  }

 private:
  template <class T>
  std::optional<T> read(const char* key) const {
    const Json* value = member(key);
    if (!value) return std::nullopt;
    if constexpr (JsonRecord<T>) {
      auto record = T::decode(*value);
      if (!record) return std::nullopt;
      return *std::move(record);
    } else {
      return readJson<T>(*value);
    }
  }

  const Json* member(const char* key) const;
  bool isNull(const char* key) const;
  static bool isArray(const Json& value);
  static std::size_t sizeOf(const Json& value);
  static const Json& element(const Json& value, std::size_t index);

  const Json& object_;
  std::optional<Error> error_;
};

}  // namespace kva
