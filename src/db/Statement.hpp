#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <string_view>

namespace vornet {

/// One prepared SQL statement, finalised at the end of its life. One thread at a time.
class Statement {
 public:
  /// Prepares `sql` on `db`, passing its length in bytes. Text whose length does not fit an int stops the process.
  Statement(sqlite3* db, std::string_view sql);
  ~Statement() { finalise(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepared() const noexcept { return prepared_; }

  /// Binds `text` to the parameter `index` (from 1) without copying: it must outlive the statement.
  void bind(int index, std::string_view text);

  /// Whether the next step gives a row.
  bool stepToRow() { return sqlite3_step(statement_) == SQLITE_ROW; }

  /// The column (from 0) of the current row as text; none when it is NULL or not UTF-8.
  std::optional<std::string> text(int column) const;
  int integer(int column) const { return sqlite3_column_int(statement_, column); }

  void finalise() noexcept;

 private:
  sqlite3_stmt* statement_ = nullptr;
  bool prepared_ = false;
};

}  // namespace vornet
