#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <Kelvara/base/Bytes.h>

namespace kva {

/// A JSON object or array in parts, the texts of its members, so that a store can change one of
/// them without writing the others.
struct JsonParts {
  enum class Kind { object, array };
  using Texts = std::map<std::string, std::string, std::less<>>;

  Kind kind;
  Texts texts;  ///< by name; the elements of an array are in the order of their names

  /// Splits JSON text. The elements of an array get the names of their positions. Absent if the
  /// text is malformed or of another kind.
  static std::optional<JsonParts> split(Kind kind, const Bytes& whole);
  /// Sets the text of a part; without a text, removes the part.
  void set(const std::string& name, const std::optional<std::string>& text);
  /// The JSON text of the object or array.
  Bytes joined() const;

  /// A name for an element of an array, which sorts by `position`.
  static std::string nameOf(std::uint64_t position);
  /// The position of a name that `nameOf` has made; 0 for other names.
  static std::uint64_t positionOf(const std::string& name);

  bool operator==(const JsonParts&) const = default;
};

}  // namespace kva
