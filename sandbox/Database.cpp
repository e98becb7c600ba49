#include "sandbox/Database.h"

#include <utility>

namespace kva::sandbox {
namespace {

constexpr int kBusyLimitMs = 5000;  // another server may share the file

}  // namespace

std::string Database::Row::text(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  return bytes ? std::string(bytes,
                             static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
               : std::string();
}

Database::Database(const std::string& path) {
  sqlite3* opened = nullptr;
  int result = sqlite3_open(path.c_str(), &opened);
  database_.reset(opened);
  if (result != SQLITE_OK) failed();
  sqlite3_busy_timeout(opened, kBusyLimitMs);
}

void Database::fail(std::string what) {
  if (!error_) error_ = std::move(what);
}

void Database::failed() { fail(std::string("database: ") + sqlite3_errmsg(database_.get())); }

void Database::run(const char* sql, std::initializer_list<Value> values,
                   const std::function<void(const Row&)>& row) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql, -1, &prepared, nullptr) != SQLITE_OK)
    return failed();
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(prepared, sqlite3_finalize);
  int index = 0;
  for (const Value& value : values) {
    ++index;
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
      sqlite3_bind_int64(prepared, index, *number);
    } else {
      auto text = std::get<std::string_view>(value);
      sqlite3_bind_text64(prepared, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }
  }
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(prepared)) == SQLITE_ROW) row(Row(prepared));
  if (result != SQLITE_DONE) failed();
}

bool Database::exists(const char* sql, std::initializer_list<Value> values) {
  bool found = false;
  run(sql, values, [&](const Row&) { found = true; });
  return found;
}

std::optional<std::string> Database::takeError() { return std::exchange(error_, std::nullopt); }

}  // namespace kva::sandbox
