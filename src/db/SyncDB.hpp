#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "base/AppConst.hpp"

struct sqlite3;

namespace vornet {

/// Reads the sync application's status database (table `ea`: `path` text, folders ending in "/"; `status` integer). The
/// file is opened read-only for each query and closed before the query returns. Any thread: each query runs under the
/// instance's recursive lock. Failures are logged and answered with "no value"; none is thrown.
///
/// A query that finds the file locked by another process waits for it, 50 ms at the longest. When that was in vain, no
/// query of the instance waits for a second: those that find the file locked fail at once.
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

  /// How many queries of the calling thread, on any instance, have failed because the file was locked. What such a
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
  /// Takes account of a query of the open connection that has just failed because the file is locked.
  void noteFailure();

  sqlite3* db_ = nullptr;
  std::optional<std::string> dbPath_;
  std::chrono::steady_clock::time_point waitsAgain_{};  // until then no query waits for a lock
  std::recursive_mutex lock_;
};

/// The reader that the whole process shares, made on first use. Any thread.
SyncDB& syncDB();

}  // namespace vornet
