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

  /// True if the next step gives a row.
  bool stepToRow() { return sqlite3_step(statement_) == SQLITE_ROW; }

  /// The column (from 0) of the current row as text; none when it is NULL or not UTF-8.
  std::optional<std::string> text(int column) const;

  /// The bytes of the column, of which a NUL may be one; empty for NULL. Valid until the next step.
  std::string_view bytes(int column) const;
  int integer(int column) const { return sqlite3_column_int(statement_, column); }

  /// Begins again with what is bound then.
  void reset() { sqlite3_reset(statement_); }

  /// True if the steps since the preparation went through a whole table, in its order, and not along an index.
  bool scansTable() const { return sqlite3_stmt_status(statement_, SQLITE_STMTSTATUS_FULLSCAN_STEP, 0) > 0; }

  void finalise() noexcept;

 private:
  sqlite3_stmt* statement_ = nullptr;
  bool prepared_ = false;
};

}  // namespace vornet
