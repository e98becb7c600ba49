#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/UserDefaults.h>

#include "platform/linux/SqliteStore.h"
#include "platform/linux/Threads.h"

namespace kva {

/// User defaults in a SQLite file, which several processes may use at a time. Only the file's
/// owner can read it. A value survives the process being killed from the moment that `set`
/// returns; a power cut may take the last ones, but leaves the file whole.
///
/// A file that is no database, or a damaged one, is renamed ("<name>.damaged-<time>") and a fresh
/// one begun. While the file cannot be written, values stay in memory, and the next `set` tries
/// again to write all of them. A file that could not be opened for writing, or that another process
/// locked for a second, is not tried again; its values are changed in memory. A claim is a lock on
/// a byte of an empty file beside it ("<name>-claims").
class SqliteDefaults final : public UserDefaults {
 public:
  /// `log` is called, on whatever thread it happens, with one line when a file is set aside, and
  /// with one when the file cannot be opened or values cannot be written for the first time.
  SqliteDefaults(std::filesystem::path file, std::function<void(std::string)> log);

  std::optional<Value> value(std::string_view key) const override;
  void set(std::string_view key, Value value) override;
  void remove(std::string_view key) override;
  std::uint64_t foreignChanges() const override;
  bool edit(const std::function<void(KeyedValues&)>& change) override;
  Claim claim(Task task) override;

 private:
  class Edit;
  struct State {
    std::unique_ptr<SqliteStore> store;
    SqliteStore::Changes unsaved;
    bool complained = false;
    bool checkpointing = false;
  };
  /// Nothing, after a line in the log, when the file cannot be opened at all.
  std::unique_ptr<SqliteStore> openStore();
  void setAside();
  void change(std::string_view key, std::optional<Value> value);
  void complain(int result);
  void committed(State& state, int pagesInLog);
  void checkpoint();

  const std::filesystem::path file_;
  const std::function<void(std::string)> log_;
  mutable Guarded<State> state_;
  /// Moves the log of changes into the database, which waits for the disk, off the callers'
  /// threads. Last, so that it ends first.
  ThreadQueue checkpoints_{"kva-defaults"};
};

}  // namespace kva
