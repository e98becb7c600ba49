#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// Caches one value of the user defaults that several processes change. `store` reads the stored
/// value, applies the changes of this process to it and writes it. If the write fails, the next
/// `store` repeats the changes. Not thread-safe.
///
/// T() is the empty value. `T::decode(Bytes)` returns the stored value, or the empty one if it is
/// unreadable. `encoded()` returns the bytes to store. `apply(T::Change)` applies one change.
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
    value_.apply(change);
    unstored_.push_back(std::move(change));
  }
  /// Writes the pending changes, if any. If that fails, they stay pending.
  void store() {
    if (unstored_.empty()) return;
    const bool isStored = userDefaults_->edit([this](KeyedValues& stored) {
      readForeignChanges(stored);
      stored.set(key_, value_.encoded());
    });
    if (isStored) unstored_.clear();
  }

 private:
  void readForeignChanges(const KeyedValues& stored) {
    const auto version = stored.foreignChanges();
    if (std::exchange(version_, version) == version) return;
    const auto bytes = stored.get<Bytes>(key_);
    value_ = bytes ? T::decode(*bytes) : T();
    for (const auto& change : unstored_) value_.apply(change);
  }

  std::shared_ptr<UserDefaults> userDefaults_;
  std::string key_;
  T value_;
  std::vector<typename T::Change> unstored_;
  std::optional<std::uint64_t> version_;
};

}  // namespace kva
