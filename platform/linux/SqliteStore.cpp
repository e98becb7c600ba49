#include "platform/linux/SqliteStore.h"

#include <cmath>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kva {
namespace {

/// The numbers that the file stores for types. They must not change.
enum class StoredType {
  string = 0,
  bytes = 1,
  boolean = 2,
  integer = 3,
  real = 4,
  object = 5,
  array = 6
};

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
  StoredType operator()(const JsonParts& parts) const {
    sqlite3_bind_null(statement, index);
    return parts.kind == JsonParts::Kind::object ? StoredType::object : StoredType::array;
  }
};

std::string_view bytesOf(sqlite3_stmt* statement, int column) {
  const auto* begin = static_cast<const char*>(sqlite3_column_blob(statement, column));
  const int size = sqlite3_column_bytes(statement, column);
  return {begin, static_cast<std::size_t>(size)};
}

/// Adds the part in the current row of `statement`, if it has one.
void addPart(JsonParts& parts, sqlite3_stmt* statement) {
  constexpr int kName = 2, kText = 3;
  if (sqlite3_column_type(statement, kName) == SQLITE_NULL) return;
  parts.texts.emplace_hint(parts.texts.end(), bytesOf(statement, kName), bytesOf(statement, kText));
}

/// The value in the current row of `statement`: columns `type` and `value`. Parts are not added.
std::optional<UserDefaults::Value> valueOf(sqlite3_stmt* statement) {
  constexpr int column = 1;
  const int kind = sqlite3_column_type(statement, column);
  switch (static_cast<StoredType>(sqlite3_column_int(statement, 0))) {
    case StoredType::string:
      if (kind == SQLITE_TEXT) return std::string(bytesOf(statement, column));
      break;
    case StoredType::bytes:
      if (kind == SQLITE_BLOB) return toBytes(bytesOf(statement, column));
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
    case StoredType::object:
      return JsonParts{.kind = JsonParts::Kind::object, .texts = {}};
    case StoredType::array:
      return JsonParts{.kind = JsonParts::Kind::array, .texts = {}};
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
        " (key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value);"
        "CREATE TABLE IF NOT EXISTS parts"
        " (key TEXT, name TEXT, text TEXT, PRIMARY KEY (key, name)) WITHOUT ROWID;"
        "CREATE TRIGGER IF NOT EXISTS parts_replaced AFTER UPDATE ON defaults WHEN old.type >= 5"
        " BEGIN DELETE FROM parts WHERE key = old.key; END;"
        "CREATE TRIGGER IF NOT EXISTS parts_removed AFTER DELETE ON defaults WHEN old.type >= 5"
        " BEGIN DELETE FROM parts WHERE key = old.key; END";
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
  int result = prepare(select_,
                       "SELECT type, value, name, text FROM defaults LEFT JOIN parts USING (key)"
                       " WHERE defaults.key = ?1 ORDER BY name");
  const bool hasNoParts = result == SQLITE_ERROR && access == Access::immutable;
  if (hasNoParts) result = prepare(select_, "SELECT type, value FROM defaults WHERE key = ?1");
  if (result == SQLITE_OK) result = prepare(version_, "PRAGMA data_version");
  if (access == Access::immutable) return result;
  const std::pair<Statement*, const char*> writing[] = {
      {&upsert_,
       "INSERT INTO defaults (key, type, value) VALUES (?1, ?2, ?3)"
       " ON CONFLICT (key) DO UPDATE SET type = excluded.type, value = excluded.value"},
      {&erase_, "DELETE FROM defaults WHERE key = ?1"},
      {&upsertPart_,
       "INSERT INTO parts (key, name, text) VALUES (?1, ?2, ?3)"
       " ON CONFLICT DO UPDATE SET text = excluded.text"},
      {&erasePart_, "DELETE FROM parts WHERE key = ?1 AND name = ?2"},
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
  int result = sqlite3_step(select_.get());
  if (result == SQLITE_ROW) found = valueOf(select_.get());
  auto* parts = found ? std::get_if<JsonParts>(&*found) : nullptr;
  for (; parts && result == SQLITE_ROW; result = sqlite3_step(select_.get()))
    addPart(*parts, select_.get());
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
  const auto& [key, value] = *changes.begin();
  const bool isOneRow =
      changes.size() == 1 && !(value && std::holds_alternative<JsonParts>(*value));
  if (isOneRow) return writeOne(key, value);
  return edit([&]() -> const Changes& { return changes; });
}

int SqliteStore::edit(const std::function<const Changes&()>& decide) {
  int result = run(begin_.get());
  if (result != SQLITE_OK) return result;
  const auto failedBefore = failedReads_;
  partResult_ = SQLITE_OK;
  const Changes& changes = decide();
  result = failedReads_ == failedBefore ? partResult_ : SQLITE_IOERR;
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
  const auto* parts = value ? std::get_if<JsonParts>(&*value) : nullptr;
  if (result != SQLITE_OK || !parts) return result;
  for (const auto& [name, text] : parts->texts) writePart(key, name, text);
  return partResult_;
}

void SqliteStore::writePart(std::string_view key, const std::string& name,
                            const std::optional<std::string>& text) {
  if (partResult_ != SQLITE_OK) return;
  sqlite3_stmt* statement = text ? upsertPart_.get() : erasePart_.get();
  bindText(statement, 1, key);
  bindText(statement, 2, name);
  if (text) bindText(statement, 3, *text);
  partResult_ = run(statement);
  sqlite3_clear_bindings(statement);
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
