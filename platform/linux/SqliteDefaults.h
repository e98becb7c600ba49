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

/// User defaults in a SQLite file that several processes may use at the same time. Only the file's
/// owner can read it. When `set` returns, the value survives SIGKILL. A power cut may lose the last
/// values, but does not damage the file. Thread-safe.
///
/// A file that is damaged or is no database is renamed to "<name>.damaged-<time>", and a new one is
/// created. If a write fails, the values stay in memory and the next `set` retries all of them. If
/// the file cannot be opened for writing, or another process locks it for a second, it is not
/// opened again and changes stay in memory. A claim is a lock on one byte of the empty file
/// "<name>-claims".
class SqliteDefaults final : public UserDefaults {
 public:
  /// `log` is called with one line when a file is renamed, and with one line the first time that
  /// the file cannot be opened or written. It is called on the thread that found out.
  SqliteDefaults(std::filesystem::path file, std::function<void(std::string)> log);

  std::optional<Value> value(std::string_view key) const override;
  void set(std::string_view key, Value value) override;
  void remove(std::string_view key) override;
  std::uint64_t foreignChanges() const override;
  bool edit(const std::function<void(EditedValues&)>& change) override;
  Claim claim(Task task) override;

 private:
  class Edit;
  struct State {
    std::unique_ptr<SqliteStore> store;
    SqliteStore::Changes unsaved;
    bool complained = false;
    bool checkpointing = false;
  };
  /// Null, after a line in the log, if the file cannot be opened at all.
  std::unique_ptr<SqliteStore> openStore();
  void setAside();
  void change(std::string_view key, std::optional<Value> value);
  void complain(int result);
  void committed(State& state, int pagesInLog);
  void checkpoint();

  const std::filesystem::path file_;
  const std::function<void(std::string)> log_;
  mutable Guarded<State> state_;
  /// Runs checkpoints, which wait for the disk, off the callers' threads. Last member, so that it
  /// is destroyed first.
  ThreadQueue checkpoints_{"kva-defaults"};
};

}  // namespace kva
