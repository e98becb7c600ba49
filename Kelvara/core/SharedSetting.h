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

/// Caches one JSON value of the user defaults that several processes change. `store` reads the
/// stored value, applies the changes of this process to it and writes the changed parts. If the
/// write fails, the next `store` repeats the changes. Not thread-safe.
///
/// T() is the empty value, and T::kKind the kind of its JSON. `T::decode(JsonParts)` returns the
/// stored value, or nothing if it is unreadable. `parts()` returns the value to store, and
/// `part(name)` the text of one part, if there is one of that name. `apply(T::Change, changed)`
/// applies one change and adds the names of the parts that it changes to `changed`.
template <class T>
class SharedSetting {
 public:
  SharedSetting(std::shared_ptr<UserDefaults> userDefaults, std::string key)
      : userDefaults_(std::move(userDefaults)), key_(std::move(key)) {
    refresh();
  }

  /// The value of the last `refresh` or `store`, with all later changes of this process.
  const T& value() const { return value_; }
  /// Reads the changes of other processes.
  void refresh() { readForeignChanges(*userDefaults_); }
  /// Changes the value in memory. Call `store` to store it.
  void change(typename T::Change change) {
    value_.apply(change, changedParts_);
    unstored_.push_back(std::move(change));
  }
  /// Writes the pending changes, if any. If that fails, they stay pending.
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
