#include "kelvane-sim/SqliteFile.hpp"

namespace vornet::sim {

namespace {

// How long a commit waits for readers to let go.
constexpr int BUSY_MILLISECONDS = 2000;

[[noreturn]] void fail(sqlite3* db, int result, const std::string& path = {}) {
  std::string what = path.empty() ? "database" : path;
  what += ": ";
  what += db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(result);
  throw SqliteError(what, result & 0xFF);
}

void check(sqlite3_stmt* statement, int result) {
  if (result != SQLITE_OK) fail(sqlite3_db_handle(statement), result);
}

}  // namespace

SqliteFile::SqliteFile(const std::string& path) {
  sqlite3* db = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  db_.reset(db);
  if (result != SQLITE_OK) fail(db, result, path);
  sqlite3_busy_timeout(db, BUSY_MILLISECONDS);
  execute("PRAGMA journal_mode = DELETE; PRAGMA synchronous = OFF; PRAGMA cache_spill = OFF");
}

void SqliteFile::execute(const std::string& sql) {
  const int result = sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) fail(db_.get(), result);
}

SqliteFile::Statement SqliteFile::prepare(std::string_view sql) {
  sqlite3_stmt* raw = nullptr;
  const int result = sqlite3_prepare_v2(db_.get(), sql.data(), static_cast<int>(sql.size()), &raw, nullptr);
  if (result != SQLITE_OK) fail(db_.get(), result);
  Statement statement;
  statement.statement_.reset(raw);
  return statement;
}

void SqliteFile::Statement::bind(int index, std::string_view text) {
  check(statement_.get(),
        sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void SqliteFile::Statement::bind(int index, int value) {
  check(statement_.get(), sqlite3_bind_int(statement_.get(), index, value));
}

bool SqliteFile::Statement::step() {
  const int result = sqlite3_step(statement_.get());
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  sqlite3* db = sqlite3_db_handle(statement_.get());
  const SqliteError error(std::string("database: ") + sqlite3_errmsg(db), result & 0xFF);
  sqlite3_reset(statement_.get());
  throw error;
}

void SqliteFile::Statement::run() {
  while (step()) {
  }
  sqlite3_reset(statement_.get());
}

std::string SqliteFile::Statement::text(int column) const {
  const unsigned char* bytes = sqlite3_column_text(statement_.get(), column);
  if (bytes == nullptr) return {};
  return {reinterpret_cast<const char*>(bytes),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

int SqliteFile::Statement::integer(int column) const {
  return sqlite3_column_int(statement_.get(), column);
}

}  // namespace vornet::sim
