#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <Kelvara/base/Bytes.h>

namespace kva {

/// Typed values by key.
class KeyedValues {
 public:
  using Value = std::variant<std::string, Bytes, bool, std::int64_t, double>;

  virtual ~KeyedValues() = default;

  virtual std::optional<Value> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, Value value) = 0;
  virtual void remove(std::string_view key) = 0;

  /// A version that changes when another process or another instance changes a value. To cache a
  /// value, read this version first, then the value.
  virtual std::uint64_t foreignChanges() const = 0;

  /// The value of `key` if it was stored as a T.
  template <class T>
  std::optional<T> get(std::string_view key) const {
    auto found = value(key);
    if (auto* typed = found ? std::get_if<T>(&*found) : nullptr) return std::move(*typed);
    return std::nullopt;
  }
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
  [[nodiscard]] virtual bool edit(const std::function<void(KeyedValues&)>& change) = 0;

  /// Work that only one process of the application may do at a time.
  enum class Task { registration, upload };
  /// The exclusive right to a task. Released when its last copy is destroyed or the process ends in
  /// any way.
  using Claim = std::shared_ptr<void>;
  /// Null if this or another process holds the claim. Does not wait.
  virtual Claim claim(Task task) = 0;
};

}  // namespace kva
