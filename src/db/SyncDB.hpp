#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/AppConst.hpp"

struct sqlite3;

namespace vornet {

/// Reads the sync application's status database (table `ea`: `path` text, folders ending in "/"; `status` integer). The
/// file is opened read-only for each query and closed before the query returns. Any thread: each query runs under the
/// instance's recursive lock. Failures are logged and answered with "no value"; none is thrown.
///
/// A query that finds the file locked by another process waits for it, at most 50 ms. If it remains locked, no
/// query of the instance waits during the next second: those that find the file locked fail at once.
class SyncDB {
 public:
  SyncDB() = default;
  virtual ~SyncDB();
  SyncDB(const SyncDB&) = delete;
  SyncDB& operator=(const SyncDB&) = delete;

  using Statuses = std::map<std::string, StatusCode, std::less<>>;

  /// The statuses of the folder `dir` (cloud path ending in "/"), of its files and of every folder below it. "%" and
  /// "_" in `dir` act as LIKE's wildcards. None on a failure and when there are no rows. An empty `dir`, and a stored
  /// path that is NULL or not UTF-8, stop the process.
  /// Kept ready; nothing calls it yet.
  std::optional<Statuses> directorySyncStatus(const std::string& dir);

  /// The status of the item stored as `path` or as `path` + "/"; -1 when there is none and on a failure.
  StatusCode pathSyncStatus(const std::string& path);

  using Names = std::unordered_map<std::string, StatusCode>;

  /// The statuses of the items directly in the folder `dir` (cloud path ending in "/"), by name: of each item that has
  /// a row, what pathSyncStatus answers. One query, which skips most rows of the folders below where `path` has an
  /// index. Ends early with more than `most` items. None when the file was locked, and when `path` is compared other
  /// than byte by byte; then the items have to be asked for one by one.
  std::optional<Names> childSyncStatus(const std::string& dir, std::size_t most);

  /// The number of the calling thread's queries, on any instance, that failed because the file was locked. What such a
  /// query answers says nothing about the item.
  static std::uint64_t lockedQueriesOfThisThread() noexcept;

 protected:
  /// The database file's full path. Stops the process without a group container.
  virtual std::string _getSyncDBPath() const;

  /// Opens the file unless a handle is there already; false when it cannot be opened. A handle that SQLite leaves after
  /// a failed open stays: the next query fails on it and closes it.
  bool connect();
  void disconnect();

  /// Takes the open handle out of the instance, for the caller to close; null when there is none.
  sqlite3* detach() noexcept;

  sqlite3* db() const { return db_; }
  std::recursive_mutex& lock() { return lock_; }

  /// The path of `fileName` in the group container.
  static std::string pathInGroupContainer(const std::string& fileName);

 private:
  /// Records that a query of the open connection has just failed; true if that is because the file is locked.
  bool noteFailure();

  bool comparesBytes() const;
  bool readsInOrder(std::string_view from, std::string_view end) const;

  sqlite3* db_ = nullptr;
  std::optional<std::string> dbPath_;
  std::chrono::steady_clock::time_point waitsAgain_{};  // until then no query waits for a lock
  std::recursive_mutex lock_;
};

/// The reader that the whole process shares, made on first use. Any thread.
SyncDB& syncDB();

}  // namespace vornet
