#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <sqlite3.h>

#include <Kelvara/platform/UserDefaults.h>

#include "platform/linux/GlibSupport.h"

namespace kva {

/// One connection to a file of defaults, with its prepared statements. One thread at a time.
/// Results are SQLite's codes. A store that could not be opened holds nothing and takes nothing.
class SqliteStore {
 public:
  using Value = UserDefaults::Value;
  using Changes = std::map<std::string, std::optional<Value>, std::less<>>;

  enum class Access {
    readWrite,  ///< makes the file, its folder and its table when they are missing
    immutable,  ///< for media that cannot be written: reads the file alone, without its log
  };
  using Clock = std::chrono::steady_clock;
  /// Before anything else, once. Waits for the locks of other processes until `deadline`.
  int open(const std::filesystem::path& file, Access access, Clock::time_point deadline);

  bool isWritable() const { return begin_ != nullptr; }
  std::optional<Value> read(std::string_view key);
  /// All of them or none.
  int write(const Changes& changes);
  /// Writes what `decide` returns, all or nothing. No other connection writes from before `decide`
  /// runs until its changes are there.
  int edit(const std::function<const Changes&()>& decide);
  /// Differs from an earlier answer once another connection has written since, or something could
  /// not be read.
  std::uint64_t foreignChanges();

  /// Calls `committed` after each commit with the number of pages that wait in the log.
  void setCommitHook(std::function<void(int pages)> committed);
  /// Moves what can be moved from the log to the file; waits for the disk, but for nobody else.
  void checkpoint();

 private:
  using Statement = std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>>;
  int prepareStatements(Access access);
  int checkIntegrity();
  int writeOne(const std::string& key, const std::optional<Value>& value);

  std::unique_ptr<sqlite3, Release<sqlite3_close_v2>> connection_;
  Statement select_, version_, upsert_, erase_, begin_, commit_, rollback_;
  std::uint64_t failedReads_ = 0;
  std::function<void(int)> committed_;
};

}  // namespace kva
