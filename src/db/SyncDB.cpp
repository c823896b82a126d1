#include "db/SyncDB.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <utility>

#include "db/Statement.hpp"
#include "logging/Logging.hpp"
#include "platform/Foundation.hpp"

namespace vornet {
namespace {

// The sync application holds its write lock for a few milliseconds at a time. Without waiting that long, some look-ups
// would find it locked and take a badge away.
constexpr int BUSY_TIMEOUT_MS = 50;

// A file that stays locked for longer than that is locked for long: a whole folder's look-ups must not wait one by one.
constexpr std::chrono::seconds WITHOUT_WAITING{1};

thread_local std::uint64_t lockedQueries = 0;

// From "/d/" to "/d0" are exactly the paths that begin with "/d/".
constexpr char AFTER_SLASH = '0';

// Rows below one folder that are read one by one before the rest of them is skipped.
constexpr int PASSED_ONE_BY_ONE = 16;

constexpr std::string_view CHILDREN = "SELECT path, status FROM ea WHERE path >= ? AND path < ?";

/// Whether an item may be called `name`.
bool isItemName(std::string_view name) {
  return !name.empty() && name.find('\0') == name.npos && platform::isValidUTF8(name);
}

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

bool SyncDB::noteFailure() {
  constexpr int PRIMARY_CODE = 0xFF;
  if ((sqlite3_errcode(db_) & PRIMARY_CODE) != SQLITE_BUSY) return false;
  ++lockedQueries;
  const auto now = std::chrono::steady_clock::now();
  if (now >= waitsAgain_) waitsAgain_ = now + WITHOUT_WAITING;
  return true;
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
  end.back() = AFTER_SLASH;
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

std::optional<SyncDB::Names> SyncDB::childSyncStatus(const std::string& dir, std::size_t most) {
  const std::lock_guard guard(lock_);
  if (!connect()) return Names();

  std::string from = dir;
  std::string end = dir;
  Statement statement(db_, CHILDREN);
  if (!statement.prepared()) {
    const bool locked = noteFailure();
    VI_WARNING("Cannot prepare SQL statement");
    statement.finalise();
    disconnect();
    return locked ? std::nullopt : std::optional(Names());
  }
  if (dir.empty()) platform::fatalError("the statuses of a folder without a path");
  end.back() = AFTER_SLASH;
  statement.bind(1, from);
  statement.bind(2, end);

  Names names;
  std::string last;
  bool isSorted = true;  // by path, so far
  bool maySkip = false;
  std::string folder;  // the one whose rows are being passed over, with its "/"
  int passed = 0;
  const bool isExact = comparesBytes();
  bool hasRow = false;
  while (isExact && names.size() <= most && (hasRow = statement.stepToRow())) {
    const auto path = statement.bytes(0);
    isSorted = isSorted && last <= path;
    last = path;
    if (!path.starts_with(dir)) continue;  // the order of another encoding
    const auto name = path.substr(dir.size());
    const auto slash = std::min(name.find('/'), name.size());
    const auto item = name.substr(0, slash);
    if (slash + 1 >= name.size()) {
      // An item may have two rows, with and without "/": pathSyncStatus answers the first.
      if (isItemName(item)) names.try_emplace(std::string(item), statement.integer(1));
    } else if (name.substr(0, slash + 1) != folder) {
      folder = name.substr(0, slash + 1);
      passed = 0;
    } else if (++passed == PASSED_ONE_BY_ONE && isSorted && !statement.scansTable() &&
               (maySkip = maySkip || readsInOrder(from, end))) {
      from = dir + folder;
      from.back() = AFTER_SLASH;
      statement.reset();
      statement.bind(1, from);
    }
  }
  const bool locked = isExact && !hasRow && noteFailure();
  statement.finalise();
  disconnect();
  if (locked || !isExact) return std::nullopt;
  return names;
}

/// False where texts with other bytes may count as equal to a path.
bool SyncDB::comparesBytes() const {
  const char* collation = nullptr;
  const int found =
      sqlite3_table_column_metadata(db_, nullptr, "ea", "path", nullptr, &collation, nullptr, nullptr, nullptr);
  return found == SQLITE_OK && sqlite3_stricmp(collation, "BINARY") == 0;
}

/// False where the rows of a folder may not be in the order of their paths' bytes: texts are stored in another
/// encoding, or an index is used that has another column before the path, and is searched once for each value of that.
bool SyncDB::readsInOrder(std::string_view from, std::string_view end) const {
  Statement encoding(db_, "PRAGMA encoding");
  Statement plan(db_, "EXPLAIN QUERY PLAN " + std::string(CHILDREN));
  plan.bind(1, from);  // the plan may depend on them
  plan.bind(2, end);
  constexpr int DETAIL = 3;
  return encoding.stepToRow() && encoding.bytes(0) == "UTF-8" && plan.stepToRow() &&
         plan.bytes(DETAIL).find("ANY(") == std::string_view::npos;
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
