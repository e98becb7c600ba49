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

/// Small typed values by key.
class KeyedValues {
 public:
  using Value = std::variant<std::string, Bytes, bool, std::int64_t, double>;

  virtual ~KeyedValues() = default;

  virtual std::optional<Value> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, Value value) = 0;
  virtual void remove(std::string_view key) = 0;

  /// Stays the same until another process (or another instance) has changed a value. Whoever keeps
  /// a copy of a value asks for this first, then for the value.
  virtual std::uint64_t foreignChanges() const = 0;

  /// The value under `key` when it was stored as a T; nothing otherwise.
  template <class T>
  std::optional<T> get(std::string_view key) const {
    auto found = value(key);
    if (auto* typed = found ? std::get_if<T>(&*found) : nullptr) return std::move(*typed);
    return std::nullopt;
  }
};

/// The host application's store, which all processes of the application share. Thread-safe. What
/// `set` returned from survives the process being killed. A store that cannot be written keeps its
/// values in memory and goes on; nothing here fails outward.
class UserDefaults : public KeyedValues {
 public:
  /// Makes several changes as one, between which no other process comes: `change` reads what is
  /// stored now and sets what follows from it. Call nothing from it but its argument. What it set
  /// survives the process being killed once `edit` returns true. False when others held the store
  /// for two seconds or it could not be written: nothing was changed, whether `change` ran or not.
  [[nodiscard]] virtual bool edit(const std::function<void(KeyedValues&)>& change) = 0;

  /// What one process of the application does at a time.
  enum class Task { registration, upload };
  /// The right to a task. Released with its last copy, or when the process ends, however it ends.
  using Claim = std::shared_ptr<void>;
  /// Null while another holder has it, in this process or another; never waits.
  virtual Claim claim(Task task) = 0;
};

}  // namespace kva
