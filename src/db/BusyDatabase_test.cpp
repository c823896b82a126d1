// Look-ups while the sync application writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "db/ConfigDB.hpp"
#include "db/SyncDB.hpp"
#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Clock = std::chrono::steady_clock;

/// A writer that commits 100 times a second until it ends.
class Writer {
 public:
  explicit Writer(const std::filesystem::path& file) : database_(file), thread_([this] { work(); }) {}
  ~Writer() {
    running_ = false;
    thread_.join();
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  int commits() const { return commits_; }

  /// The longest time that the database was locked.
  milliseconds longestLock() const { return milliseconds(longestLock_); }

 private:
  static constexpr milliseconds PERIOD{10};

  void work() {
    database_.run("PRAGMA busy_timeout=10000; PRAGMA synchronous=OFF");
    for (auto next = Clock::now(); running_; next = std::max(next + PERIOD, Clock::now())) {
      std::this_thread::sleep_until(next);
      const auto begin = Clock::now();
      database_.run("BEGIN EXCLUSIVE; UPDATE ea SET status = 1; UPDATE ea SET status = 2; COMMIT");
      longestLock_ = std::max(longestLock_.load(), std::chrono::ceil<milliseconds>(Clock::now() - begin).count());
      ++commits_;
    }
  }

  Database database_;
  std::atomic<bool> running_ = true;
  std::atomic<int> commits_ = 0;
  std::atomic<milliseconds::rep> longestLock_ = 0;
  std::thread thread_;
};

/// True if a look-up works that does not wait for a lock.
bool impatientLookUp(const std::filesystem::path& file) {
  sqlite3* db = nullptr;
  const bool works = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
                     sqlite3_exec(db, "SELECT status FROM ea", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return works;
}

class BusyDatabaseTest : public ::testing::Test {
 protected:
  BusyDatabaseTest() { makeSyncDatabase(file(), {{"/a/x", 2}}); }

  std::filesystem::path file() const { return environment_.container() / "sync.db"; }

  Environment environment_;
  SyncDBProbe database_;
};

TEST_F(BusyDatabaseTest, NoLookUpFailsWhileAWriterCommitsHundredTimesASecond) {
  constexpr int COMMITS = 200;
  constexpr int ROUNDS = 20;
  // A round proves nothing if it met no lock, or if the machine stopped the writer while it held the lock.
  constexpr milliseconds LONG_LOCK{5};
  for (int round = 0; round < ROUNDS; ++round) {
    const LogRecorder log(LogLevel::Warning);
    Writer writer(file());
    int locksMet = 0;
    int failures = 0;
    while (writer.commits() < COMMITS) {
      locksMet += !impatientLookUp(file());
      failures += database_.pathSyncStatus("/a/x") != 2;
      failures += database_.directorySyncStatus("/a/") != SyncDB::Statuses{{"/a/x", 2}};
    }
    if (locksMet == 0 || (failures > 0 && writer.longestLock() > LONG_LOCK)) continue;
    EXPECT_EQ(failures, 0) << "longest lock " << writer.longestLock().count() << " ms";
    EXPECT_THAT(log.messages(), IsEmpty());
    return;
  }
  FAIL() << "no round in which the writer ran as it should";
}

TEST_F(BusyDatabaseTest, ALockThatIsHeldForeverMakesALookUpFailWithAWarning) {
  Database writer(file());
  writer.run("BEGIN EXCLUSIVE");
  const LogRecorder log;
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), -1);
  EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
  EXPECT_THAT(log.messages(),
              ElementsAre("Cannot prepare SQL statement", "Fetch status for dir: /a/", "Cannot prepare SQL statement"));
  EXPECT_EQ(log.messages(LogLevel::Warning).size(), 2U);
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_FALSE(database_.isLocked());
  writer.run("COMMIT");
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 2);
}

TEST_F(BusyDatabaseTest, CountsTheLookUpsOfThisThreadThatALockMadeFailAndNoOthers) {
  const auto before = SyncDB::lockedQueriesOfThisThread();
  const auto counted = [&] { return SyncDB::lockedQueriesOfThisThread() - before; };
  database_.pathSyncStatus("/a/x");
  database_.pathSyncStatus("/a/gone");
  EXPECT_EQ(counted(), 0U);
  Database writer(file());
  writer.run("BEGIN EXCLUSIVE");
  database_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 1U);
  database_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 2U) << "also without waiting";
  database_.directorySyncStatus("/a/");
  EXPECT_EQ(counted(), 3U);
  EXPECT_EQ(onAnotherThread([&] {
              database_.pathSyncStatus("/a/x");
              return SyncDB::lockedQueriesOfThisThread();
            }),
            1U);
  EXPECT_EQ(counted(), 3U);
  writer.run("COMMIT; DROP TABLE ea");
  database_.pathSyncStatus("/a/x");
  std::filesystem::remove(file());
  database_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 3U) << "a database that cannot be read is not locked";
}

TEST_F(BusyDatabaseTest, AWritersReservedLockDoesNotDisturbALookUp) {
  Database writer(file());
  writer.run("BEGIN IMMEDIATE; UPDATE ea SET status = 1");
  const LogRecorder log;
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 2);
  writer.run("COMMIT");
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 1);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(BusyDatabaseTest, AQueryDoesNotKeepAWriterFromCommitting) {
  Database writer(file());
  writer.run("BEGIN EXCLUSIVE; UPDATE ea SET status = 1");
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), -1);
  EXPECT_NO_THROW(writer.run("COMMIT"));
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 1);
}

TEST_F(BusyDatabaseTest, ALockedConfigurationDatabaseGivesNoValueWithAWarning) {
  Database writer(environment_.container() / "config.db");
  writer.run("CREATE TABLE configuration (local_root TEXT); INSERT INTO configuration VALUES ('/R'); BEGIN EXCLUSIVE");
  const LogRecorder log;
  ConfigDBProbe database;
  EXPECT_EQ(database.getLocalRoot(), std::nullopt);
  EXPECT_THAT(log.messages(), ElementsAre("Cannot prepare SQL statement for fetching local_root"));
  EXPECT_FALSE(database.isLocked());
  writer.run("COMMIT");
  EXPECT_EQ(database.getLocalRoot(), "/R");
}

}  // namespace
}  // namespace vornet::test
