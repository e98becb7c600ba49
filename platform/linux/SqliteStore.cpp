#include "platform/linux/SqliteStore.h"

#include <cmath>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kva {
namespace {

/// The numbers that the file stores for types. They must not change.
enum class StoredType { string = 0, bytes = 1, boolean = 2, integer = 3, real = 4 };

/// Creates the file if it is missing, and lets only its owner read it and its companions (log,
/// index, claims). SQLite gives new companions the mode of the file.
void preparePrivateFile(const std::filesystem::path& file) {
  const int made = ::open(file.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  if (made >= 0) ::close(made);
  for (const char* suffix : {"", "-wal", "-shm", "-claims"}) {
    using std::filesystem::perms;
    std::error_code ignored;
    std::filesystem::permissions(file.native() + suffix, perms::owner_read | perms::owner_write,
                                 ignored);
  }
}

/// A busy handler; `times` counts its earlier calls. It retries every millisecond, so that a
/// process that writes much does not starve others, and gives up after two seconds.
int waitForOthers(void*, int times) {
  constexpr int kMilliseconds = 2000;
  usleep(1000);
  return times < kMilliseconds;
}

int bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  return sqlite3_bind_text64(statement, index, text.empty() ? "" : text.data(), text.size(),
                             SQLITE_STATIC, SQLITE_UTF8);
}

struct Binder {
  sqlite3_stmt* statement;
  int index;

  StoredType operator()(const std::string& text) const {
    bindText(statement, index, text);
    return StoredType::string;
  }
  StoredType operator()(const Bytes& bytes) const {
    sqlite3_bind_blob64(statement, index,
                        bytes.empty() ? "" : static_cast<const void*>(bytes.data()), bytes.size(),
                        SQLITE_STATIC);
    return StoredType::bytes;
  }
  StoredType operator()(bool value) const {
    sqlite3_bind_int64(statement, index, value);
    return StoredType::boolean;
  }
  StoredType operator()(std::int64_t value) const {
    sqlite3_bind_int64(statement, index, value);
    return StoredType::integer;
  }
  StoredType operator()(double value) const {
    sqlite3_bind_double(statement, index, value);
    return StoredType::real;
  }
};

/// The value in the current row of `statement`: columns `type` and `value`.
std::optional<UserDefaults::Value> valueOf(sqlite3_stmt* statement) {
  constexpr int column = 1;
  const int kind = sqlite3_column_type(statement, column);
  const auto bytes = [&] {
    const auto* begin = static_cast<const char*>(sqlite3_column_blob(statement, column));
    const int size = sqlite3_column_bytes(statement, column);
    return std::string_view(begin, static_cast<std::size_t>(size));
  };
  switch (static_cast<StoredType>(sqlite3_column_int(statement, 0))) {
    case StoredType::string:
      if (kind == SQLITE_TEXT) return std::string(bytes());
      break;
    case StoredType::bytes:
      if (kind == SQLITE_BLOB) return toBytes(bytes());
      break;
    case StoredType::boolean:
      if (kind == SQLITE_INTEGER) return sqlite3_column_int64(statement, column) != 0;
      break;
    case StoredType::integer:
      if (kind == SQLITE_INTEGER) return std::int64_t{sqlite3_column_int64(statement, column)};
      break;
    case StoredType::real:
      if (kind == SQLITE_FLOAT) return sqlite3_column_double(statement, column);
      if (kind == SQLITE_NULL) return std::nan("");  // SQLite stores NaN as NULL
      break;
  }
  return std::nullopt;
}

/// A busy handler with one deadline for all statements.
int retryUntil(void* deadline, int) {
  if (SqliteStore::Clock::now() >= *static_cast<SqliteStore::Clock::time_point*>(deadline))
    return 0;
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return 1;
}

/// Runs a statement that returns no rows.
int run(sqlite3_stmt* statement) {
  if (!statement) return SQLITE_READONLY;
  const int result = sqlite3_step(statement);
  sqlite3_reset(statement);
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

}  // namespace

int SqliteStore::open(const std::filesystem::path& file, Access access,
                      Clock::time_point deadline) {
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  std::string name = file.native();
  if (access == Access::readWrite) {
    preparePrivateFile(file);
    flags |= SQLITE_OPEN_READWRITE;
  } else {
    const GStringPtr uri(g_filename_to_uri(file.c_str(), nullptr, nullptr));
    name = std::string(uri.get()) + "?immutable=1";
    flags |= SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
  }
  sqlite3* opened = nullptr;
  int result = sqlite3_open_v2(name.c_str(), &opened, flags, nullptr);
  connection_.reset(opened);
  if (result != SQLITE_OK) return result;
  sqlite3_busy_handler(opened, retryUntil, &deadline);
  if (access == Access::readWrite) {
    constexpr const char* setUp =
        "PRAGMA journal_mode = WAL;"
        "PRAGMA synchronous = NORMAL;"
        "PRAGMA wal_autocheckpoint = 0;"
        "CREATE TABLE IF NOT EXISTS defaults"
        " (key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value)";
    result = sqlite3_exec(opened, setUp, nullptr, nullptr, nullptr);
    if (result == SQLITE_OK) result = checkIntegrity();
  }
  if (result == SQLITE_OK) result = prepareStatements(access);
  sqlite3_busy_handler(opened, waitForOthers, nullptr);
  return result;
}

int SqliteStore::checkIntegrity() {
  sqlite3_stmt* made = nullptr;
  int result = sqlite3_prepare_v2(connection_.get(), "PRAGMA quick_check(1)", -1, &made, nullptr);
  const Statement check(made);
  if (result == SQLITE_OK) result = sqlite3_step(made);
  if (result != SQLITE_ROW) return result;
  const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(made, 0));
  return verdict && std::string_view(verdict) == "ok" ? SQLITE_OK : SQLITE_CORRUPT;
}

int SqliteStore::prepareStatements(Access access) {
  const auto prepare = [this](Statement& statement, const char* sql) {
    sqlite3_stmt* made = nullptr;
    const int result =
        sqlite3_prepare_v3(connection_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
    statement.reset(made);
    return result;
  };
  int result = prepare(select_, "SELECT type, value FROM defaults WHERE key = ?1");
  if (result == SQLITE_OK) result = prepare(version_, "PRAGMA data_version");
  if (access == Access::immutable) return result;
  const std::pair<Statement*, const char*> writing[] = {
      {&upsert_,
       "INSERT INTO defaults (key, type, value) VALUES (?1, ?2, ?3)"
       " ON CONFLICT (key) DO UPDATE SET type = excluded.type, value = excluded.value"},
      {&erase_, "DELETE FROM defaults WHERE key = ?1"},
      {&begin_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
  };
  for (const auto& [statement, sql] : writing)
    if (result == SQLITE_OK) result = prepare(*statement, sql);
  return result;
}

std::optional<UserDefaults::Value> SqliteStore::read(std::string_view key) {
  if (!select_) return std::nullopt;
  bindText(select_.get(), 1, key);
  std::optional<Value> found;
  const int result = sqlite3_step(select_.get());
  if (result == SQLITE_ROW) found = valueOf(select_.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) ++failedReads_;
  sqlite3_reset(select_.get());
  return found;
}

std::uint64_t SqliteStore::foreignChanges() {
  if (!version_) return 0;
  std::uint64_t version = 0;
  if (sqlite3_step(version_.get()) == SQLITE_ROW)
    version = static_cast<std::uint64_t>(sqlite3_column_int64(version_.get(), 0));
  else
    ++failedReads_;
  sqlite3_reset(version_.get());
  return version + (failedReads_ << 32);
}

int SqliteStore::write(const Changes& changes) {
  if (changes.size() == 1) return writeOne(changes.begin()->first, changes.begin()->second);
  return edit([&]() -> const Changes& { return changes; });
}

int SqliteStore::edit(const std::function<const Changes&()>& decide) {
  int result = run(begin_.get());
  if (result != SQLITE_OK) return result;
  const auto failedBefore = failedReads_;
  const Changes& changes = decide();
  if (failedReads_ != failedBefore) result = SQLITE_IOERR;
  for (const auto& [key, value] : changes)
    if (result == SQLITE_OK) result = writeOne(key, value);
  if (result == SQLITE_OK) result = run(commit_.get());
  if (result != SQLITE_OK) run(rollback_.get());
  return result;
}

int SqliteStore::writeOne(const std::string& key, const std::optional<Value>& value) {
  sqlite3_stmt* statement = value ? upsert_.get() : erase_.get();
  if (!statement) return SQLITE_READONLY;
  bindText(statement, 1, key);
  if (value) {
    const auto type = std::visit(Binder{statement, 3}, *value);
    sqlite3_bind_int(statement, 2, static_cast<int>(type));
  }
  const int result = run(statement);
  sqlite3_clear_bindings(statement);
  return result;
}

void SqliteStore::setCommitHook(std::function<void(int)> committed) {
  if (!connection_) return;
  committed_ = std::move(committed);
  sqlite3_wal_hook(
      connection_.get(),
      [](void* hook, sqlite3*, const char*, int pages) {
        (*static_cast<std::function<void(int)>*>(hook))(pages);
        return SQLITE_OK;
      },
      &committed_);
}

void SqliteStore::checkpoint() {
  sqlite3_wal_checkpoint_v2(connection_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                            nullptr);
}

}  // namespace kva
