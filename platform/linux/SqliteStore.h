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

/// One connection to a file of defaults, with its prepared statements. Not thread-safe. Results are
/// SQLite's codes. If `open` fails, reads return nothing and writes fail.
///
/// The table `defaults` has a row per key. The row of a JsonParts has no value; the table `parts`
/// has a row for each of its parts, so that a change of one part writes one page of the file
/// whatever the number of parts. A trigger deletes the parts when the row changes. Files without
/// `parts`, of earlier versions, receive it when they are opened for writing.
class SqliteStore {
 public:
  using Value = UserDefaults::Value;
  using Changes = std::map<std::string, std::optional<Value>, std::less<>>;

  enum class Access {
    readWrite,  ///< creates the file, its folder and its table if they are missing
    immutable,  ///< for read-only media: reads the file without its log
  };
  using Clock = std::chrono::steady_clock;
  /// Call it once, first. Waits for the locks of other processes until `deadline`.
  int open(const std::filesystem::path& file, Access access, Clock::time_point deadline);

  bool isWritable() const { return begin_ != nullptr; }
  std::optional<Value> read(std::string_view key);
  /// Writes all changes or none.
  int write(const Changes& changes);
  /// Writes all changes that `decide` returns, and all parts that it writes, or none. It locks out
  /// other writers before it calls `decide`, until the changes are committed.
  int edit(const std::function<const Changes&()>& decide);
  /// Only in `edit`. The value of `key` must be stored as a JsonParts. Without a text, removes the
  /// part.
  void writePart(std::string_view key, const std::string& name,
                 const std::optional<std::string>& text);
  /// A number that changes when another connection has written, or when a read failed.
  std::uint64_t foreignChanges();

  /// Calls `committed` after each commit, with the number of pages in the log.
  void setCommitHook(std::function<void(int pages)> committed);
  /// Moves pages from the log to the file. Waits for the disk, but not for other connections.
  void checkpoint();

 private:
  using Statement = std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>>;
  int prepareStatements(Access access);
  int checkIntegrity();
  int writeOne(const std::string& key, const std::optional<Value>& value);

  std::unique_ptr<sqlite3, Release<sqlite3_close_v2>> connection_;
  Statement select_, version_, upsert_, erase_, upsertPart_, erasePart_, begin_, commit_, rollback_;
  std::uint64_t failedReads_ = 0;
  int partResult_ = SQLITE_OK;  ///< the first failure of `writePart` in this edit
  std::function<void(int)> committed_;
};

}  // namespace kva
