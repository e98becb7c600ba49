#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// A decoded copy of one JSON value of the user defaults, which several processes of the
/// application change. `store` applies the changes of this process to the value stored at that
/// moment, and writes only the changed parts. Changes that cannot be stored are applied again at
/// the next `store`. Not thread-safe.
///
/// T() is the empty value, and T::kKind the kind of its JSON. `T::decode(JsonParts)` reads a stored
/// value (absent if it is unreadable), and `parts()` returns the value to store. `apply(T::Change,
/// changed)` applies one change and adds the names of the parts that it changes to `changed`.
/// `part(name)` returns the text of a part, if there is one of that name.
template <class T>
class SharedSetting {
 public:
  SharedSetting(std::shared_ptr<UserDefaults> userDefaults, std::string key)
      : userDefaults_(std::move(userDefaults)), key_(std::move(key)) {
    refresh();
  }

  /// The value as of the last call, with all changes of this process.
  const T& value() const { return value_; }
  /// Reads the changes of other processes.
  void refresh() { readForeignChanges(*userDefaults_); }
  /// Changes the value in memory. Call `store` to store it.
  void change(typename T::Change change) {
    value_.apply(change, changedParts_);
    unstored_.push_back(std::move(change));
  }
  /// Stores the changes; does nothing if there are none. If the store cannot be written, the
  /// changes stay pending.
  void store() {
    if (unstored_.empty()) return;
    const bool isStored = userDefaults_->edit([this](EditedValues& stored) {
      readForeignChanges(stored);
      if (!isStoredInParts_) return stored.set(key_, value_.parts());
      for (const auto& name : changedParts_) stored.setPart(key_, name, value_.part(name));
    });
    if (!isStored) return;
    isStoredInParts_ = true;
    unstored_.clear();
    changedParts_.clear();
  }

 private:
  void readForeignChanges(const KeyedValues& stored) {
    const auto version = stored.foreignChanges();
    if (std::exchange(version_, version) == version) return;
    auto decoded = readStored(stored);
    // What is missing, unreadable, or stored as a whole by an earlier version is stored anew.
    if (!decoded) isStoredInParts_ = false;
    value_ = std::move(decoded).value_or(T());
    changedParts_.clear();
    for (const auto& change : unstored_) value_.apply(change, changedParts_);
  }

  std::optional<T> readStored(const KeyedValues& stored) {
    const auto value = stored.value(key_);
    const auto* parts = value ? std::get_if<JsonParts>(&*value) : nullptr;
    isStoredInParts_ = parts && parts->kind == T::kKind;
    if (isStoredInParts_) return T::decode(*parts);
    const auto* whole = value ? std::get_if<Bytes>(&*value) : nullptr;
    const auto split = whole ? JsonParts::split(T::kKind, *whole) : std::nullopt;
    return split ? T::decode(*split) : std::nullopt;
  }

  std::shared_ptr<UserDefaults> userDefaults_;
  std::string key_;
  T value_;
  bool isStoredInParts_ = false;
  std::vector<typename T::Change> unstored_;
  std::set<std::string> changedParts_;  ///< by `unstored_`
  std::optional<std::uint64_t> version_;
};

}  // namespace kva
