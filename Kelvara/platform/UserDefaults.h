#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <Kelvara/base/Bytes.h>

namespace kva {

/// The host application's store of small typed values. Thread-safe. What `set` returned from
/// survives the process being killed. A store that cannot be written keeps its values in memory
/// and goes on; nothing here fails outward.
class UserDefaults {
 public:
  using Value = std::variant<std::string, Bytes, bool, std::int64_t, double>;

  virtual ~UserDefaults() = default;

  virtual std::optional<Value> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, Value value) = 0;
  virtual void remove(std::string_view key) = 0;

  /// The value under `key` when it was stored as a T; nothing otherwise.
  template <class T>
  std::optional<T> get(std::string_view key) const {
    auto found = value(key);
    if (auto* typed = found ? std::get_if<T>(&*found) : nullptr) return std::move(*typed);
    return std::nullopt;
  }
};

}  // namespace kva
