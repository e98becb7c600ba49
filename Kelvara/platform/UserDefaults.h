#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include <Kelvara/base/Bytes.h>
#include <Kelvara/base/JsonParts.h>

namespace kva {

/// Typed values by key.
class KeyedValues {
 public:
  using Value = std::variant<std::string, Bytes, bool, std::int64_t, double, JsonParts>;

  virtual ~KeyedValues() = default;

  virtual std::optional<Value> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, Value value) = 0;
  virtual void remove(std::string_view key) = 0;

  /// A version that changes when another process or another instance changes a value. To cache a
  /// value, read this version first, then the value.
  virtual std::uint64_t foreignChanges() const = 0;

  /// The value of `key` if it was stored as a T. JSON in parts is also Bytes, its whole text.
  template <class T>
  std::optional<T> get(std::string_view key) const {
    auto found = value(key);
    if constexpr (std::is_same_v<T, Bytes>)
      if (auto* parts = found ? std::get_if<JsonParts>(&*found) : nullptr) return parts->joined();
    if (auto* typed = found ? std::get_if<T>(&*found) : nullptr) return std::move(*typed);
    return std::nullopt;
  }
};

/// The values during one edit of the user defaults.
class EditedValues : public KeyedValues {
 public:
  /// Sets one part of `key`, whose value is a JsonParts; without a text, removes it. The cost does
  /// not depend on the other parts.
  virtual void setPart(std::string_view key, const std::string& name,
                       const std::optional<std::string>& text) = 0;
};

/// The host application's store, shared by all processes of the application. Thread-safe. A value
/// survives a kill of the process once `set` has returned. If the store cannot be written, its
/// values stay in memory; no error is reported.
class UserDefaults : public KeyedValues {
 public:
  /// Makes several changes in one transaction: no other process changes the store meanwhile.
  /// `change` reads the stored values and sets new ones. It must call nothing but its argument. If
  /// `edit` returns true, the changes survive a kill of the process. If it returns false, another
  /// process locked the store for two seconds or it cannot be written: nothing has changed, even if
  /// `change` ran.
  [[nodiscard]] virtual bool edit(const std::function<void(EditedValues&)>& change) = 0;

  /// Work that only one process of the application may do at a time.
  enum class Task { registration, upload };
  /// The exclusive right to a task. Released when its last copy is destroyed or the process ends in
  /// any way.
  using Claim = std::shared_ptr<void>;
  /// Null if this or another process holds the claim. Does not wait.
  virtual Claim claim(Task task) = 0;
};

}  // namespace kva
