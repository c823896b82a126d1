#include "db/SyncDB.hpp"

#include <sqlite3.h>

#include <chrono>
#include <utility>

#include "db/Statement.hpp"
#include "logging/Logging.hpp"
#include "platform/Foundation.hpp"

namespace vornet {
namespace {

// The sync application holds its write lock for a few milliseconds at a time; without waiting that long a look-up now
// and then finds it locked and would take a badge away.
constexpr int BUSY_TIMEOUT_MS = 50;

// A file that stays locked for longer than that is locked for long: a whole folder's look-ups must not wait one by one.
constexpr std::chrono::seconds WITHOUT_WAITING{1};

thread_local std::uint64_t lockedQueries = 0;

}  // namespace

std::uint64_t SyncDB::lockedQueriesOfThisThread() noexcept {
  return lockedQueries;
}

SyncDB& syncDB() {
  // Never destroyed: a thread may still be asking when the process ends.
  static SyncDB& database = *new SyncDB;
  return database;
}

SyncDB::~SyncDB() {
  disconnect();
}

std::string SyncDB::pathInGroupContainer(const std::string& fileName) {
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  if (!container) platform::fatalError("no group container for a database");
  const auto path = container->appendingPathComponent(fileName).path();
  if (!path) platform::fatalError("a database without a path");
  return *path;
}

std::string SyncDB::_getSyncDBPath() const {
  return pathInGroupContainer(App().SYNC_DB_NAME);
}

bool SyncDB::connect() {
  if (!dbPath_) dbPath_ = _getSyncDBPath();
  if (db_) return true;
  if (sqlite3_open_v2(dbPath_->c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    VI_DEBUG("Cannot open database");
    return false;
  }
  const bool waits = std::chrono::steady_clock::now() >= waitsAgain_;
  sqlite3_busy_timeout(db_, waits ? BUSY_TIMEOUT_MS : 0);
  return true;
}

void SyncDB::noteFailure() {
  constexpr int PRIMARY_CODE = 0xFF;
  if ((sqlite3_errcode(db_) & PRIMARY_CODE) != SQLITE_BUSY) return;
  ++lockedQueries;
  const auto now = std::chrono::steady_clock::now();
  if (now >= waitsAgain_) waitsAgain_ = now + WITHOUT_WAITING;
}

void SyncDB::disconnect() {
  sqlite3_close(detach());
}

sqlite3* SyncDB::detach() noexcept {
  return std::exchange(db_, nullptr);
}

std::optional<SyncDB::Statuses> SyncDB::directorySyncStatus(const std::string& dir) {
  const std::lock_guard guard(lock_);
  if (!connect()) return std::nullopt;
  VI_DEBUG("Fetch status for dir: " + dir);

  // Bound texts are not copied by SQLite: they are declared before the statement and outlive it.
  std::string end = dir;
  const std::string deeper = dir + "%/%";
  const std::string folders = dir + "%/";
  Statement statement(db_,
                      "SELECT path, status FROM ea WHERE path >= ? AND path < ? AND (NOT path like ? or path like ?)");
  if (!statement.prepared()) {
    noteFailure();
    VI_WARNING("Cannot prepare SQL statement");
    statement.finalise();
    disconnect();
    return std::nullopt;
  }
  if (dir.empty()) platform::fatalError("the statuses of a folder without a path");
  end.back() = '0';  // the character after "/": from `dir` to `end` stand exactly the paths that begin with `dir`
  statement.bind(1, dir);
  statement.bind(2, end);
  statement.bind(3, deeper);
  statement.bind(4, folders);

  Statuses statuses;
  while (statement.stepToRow()) {
    auto path = statement.text(0);
    if (!path) platform::fatalError("a path in the sync database that is not text");
    statuses.insert_or_assign(*std::move(path), statement.integer(1));
  }
  noteFailure();
  VI_DEBUG("Num of lemenets returned: " + std::to_string(statuses.size()));
  statement.finalise();
  disconnect();
  if (statuses.empty()) return std::nullopt;
  return statuses;
}

StatusCode SyncDB::pathSyncStatus(const std::string& path) {
  const std::lock_guard guard(lock_);
  if (!connect()) return -1;

  const std::string folder = path + "/";
  Statement statement(db_, "SELECT status FROM ea WHERE path in (?, ?) LIMIT 1");
  if (!statement.prepared()) {
    noteFailure();
    VI_WARNING("Cannot prepare SQL statement");
    statement.finalise();
    disconnect();
    return -1;
  }
  statement.bind(1, path);
  statement.bind(2, folder);
  const bool found = statement.stepToRow();
  if (!found) noteFailure();
  const StatusCode status = found ? statement.integer(0) : -1;
  statement.finalise();
  disconnect();
  return status;
}

}  // namespace vornet
