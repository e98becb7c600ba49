#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kva::sandbox {

/// An SQLite database, for one thread at a time. It keeps the first failure until takeError(), so a
/// caller checks once per request, not after every statement.
class Database {
 public:
  using Value = std::variant<std::int64_t, std::string_view>;

  /// The columns of a query's current row.
  class Row {
   public:
    explicit Row(sqlite3_stmt* statement) : statement_(statement) {}
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::string text(int column) const;

   private:
    sqlite3_stmt* statement_;
  };

  explicit Database(const std::string& path);

  /// Runs one statement with its `?` bound to `values`, and calls `row` for each result row.
  void run(
      const char* sql, std::initializer_list<Value> values = {},
      const std::function<void(const Row&)>& row = [](const Row&) {});
  bool exists(const char* sql, std::initializer_list<Value> values);

  std::optional<std::string> takeError();
  void fail(std::string what);  ///< records a failure to fill this database

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };
  void failed();

  std::unique_ptr<sqlite3, Close> database_;
  std::optional<std::string> error_;
};

}  // namespace kva::sandbox
