#pragma once

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vornet::sim {

/// A failure that SQLite reported. `code`: its primary result code.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(const std::string& what, int resultCode) : std::runtime_error(what), code(resultCode) {}
  int code;
};

/// A connection to one SQLite file, made when missing, with a rollback journal and without waits for the disk: the
/// stand-in writes its databases again from what it finds, and the shorter a commit, the fewer readers find the file
/// locked. Not thread-safe.
class SqliteFile {
 public:
  /// A prepared statement.
  class Statement {
   public:
    /// Binds text to the parameter `index` (from 1). `text` must stay alive until the next `run`, `step` or `reset`.
    void bind(int index, std::string_view text);
    void bind(int index, int value);
    /// Goes to the next row; false after the last. Throws SqliteError.
    bool step();
    /// Runs a statement without rows to its end and makes it ready to be bound again. Throws SqliteError.
    void run();
    std::string text(int column) const;
    int integer(int column) const;

   private:
    friend class SqliteFile;
    struct Finalize {
      void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  };

  /// Opens or makes the file at `path`. Throws SqliteError.
  explicit SqliteFile(const std::string& path);

  /// Runs SQL text without results. Throws SqliteError.
  void execute(const std::string& sql);
  /// Throws SqliteError.
  Statement prepare(std::string_view sql);

 private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace vornet::sim
