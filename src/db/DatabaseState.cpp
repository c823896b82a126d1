#include "db/DatabaseState.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

namespace vornet {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int PATIENCE_WITH_LOCK_MS = 1000;
constexpr std::chrono::seconds LONGEST_CHECK{2};
constexpr int STEPS_BETWEEN_LOOKS = 10'000;

struct Close {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// SQLite's code after the first row of `sql`, whose text goes to `text`.
int firstRow(sqlite3* database, const char* sql, std::string& text) {
  sqlite3_stmt* prepared = nullptr;
  const int code = sqlite3_prepare_v2(database, sql, -1, &prepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, Close> statement(prepared);
  if (code != SQLITE_OK) return code;
  const int step = sqlite3_step(statement.get());
  const auto* column = step == SQLITE_ROW ? sqlite3_column_text(statement.get(), 0) : nullptr;
  if (column) text = reinterpret_cast<const char*>(column);
  return step == SQLITE_ROW ? SQLITE_DONE : step;
}

DatabaseState stateOf(int code) {
  switch (code) {
    case SQLITE_DONE:
      return DatabaseState::readable;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return DatabaseState::locked;
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_IOERR:
    case SQLITE_READONLY:
      return DatabaseState::unreadable;
    default:
      return DatabaseState::corrupt;
  }
}

}  // namespace

DatabaseState examineSyncDatabase(const std::string& path, std::string& problem) {
  const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) {
    problem = std::strerror(errno);
    return errno == ENOENT || errno == ENOTDIR ? DatabaseState::missing : DatabaseState::unreadable;
  }
  ::close(file);

  sqlite3* opened = nullptr;
  int code = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
  const std::unique_ptr<sqlite3, Close> database(opened);
  std::string found;
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(opened, PATIENCE_WITH_LOCK_MS);
    code = firstRow(opened, "SELECT status FROM ea WHERE path in ('/', '//') LIMIT 1", found);
  }
  if (stateOf(code) != DatabaseState::readable) {
    problem = sqlite3_errmsg(opened);
    return stateOf(code);
  }
  const auto end = Clock::now() + LONGEST_CHECK;
  const auto isLate = +[](void* until) -> int { return Clock::now() > *static_cast<const Clock::time_point*>(until); };
  sqlite3_progress_handler(opened, STEPS_BETWEEN_LOOKS, isLate, const_cast<Clock::time_point*>(&end));
  found.clear();
  code = firstRow(opened, "PRAGMA quick_check(1)", found);
  if (code == SQLITE_INTERRUPT || (code == SQLITE_DONE && found == "ok")) return DatabaseState::readable;
  problem = code == SQLITE_DONE ? found : sqlite3_errmsg(opened);
  return code == SQLITE_DONE ? DatabaseState::corrupt : stateOf(code);
}

}  // namespace vornet
