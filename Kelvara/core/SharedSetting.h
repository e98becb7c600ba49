#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// A value under one key of the user defaults, kept decoded, that several processes of the
/// application change. A change is made to what is stored at that moment, whoever stored it; one
/// that cannot be stored yet is made again on what is stored by then. Not thread-safe.
///
/// A T is empty when it is made, `decode(Bytes)` gives what was stored (empty if unreadable),
/// `encoded()` the bytes to store, and `apply(T::Change)` makes one change.
template <class T>
class SharedSetting {
 public:
  SharedSetting(std::shared_ptr<UserDefaults> userDefaults, std::string key)
      : userDefaults_(std::move(userDefaults)), key_(std::move(key)) {
    refresh();
  }

  /// As of the last call, with every change of this process.
  const T& value() const { return value_; }
  /// Takes up what other processes have changed.
  void refresh() { takeUp(*userDefaults_); }
  /// In memory; `store` is due.
  void change(typename T::Change change) {
    value_.apply(change);
    unstored_.push_back(std::move(change));
  }
  /// Stored when it returns, unless the store cannot be written. Without a change nothing is.
  void store() {
    if (unstored_.empty()) return;
    const bool isStored = userDefaults_->edit([this](KeyedValues& stored) {
      takeUp(stored);
      stored.set(key_, value_.encoded());
    });
    if (isStored) unstored_.clear();
  }

 private:
  void takeUp(const KeyedValues& stored) {
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
