// What holds for every query of the databases, also while the sync application writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "db/ConfigDB.hpp"
#include "db/SyncDB.hpp"
#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/ProcessStops.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;
using ::testing::_;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::FieldsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using Clock = std::chrono::steady_clock;

/// The status in `found`, where there is nothing but `item`; -1 when there is nothing.
template <typename Found>
StatusCode onlyStatus(const std::optional<Found>& found, const char* item) {
  if (!found || found->empty()) return -1;
  EXPECT_THAT(*found, ElementsAre(Pair(item, _)));
  return found->begin()->second;
}

/// A query of the one item of a database. It is asked of a reader of the configuration, which answers all of them.
struct Query {
  std::string name;
  StatusCode (*ask)(ConfigDBProbe& reader);  // -1 without an answer
  std::string function;
  std::vector<std::string> answered{};  // messages with an answer
  std::vector<std::string> failed{"Cannot prepare SQL statement"};
  bool failedOpenKeepsLock = false;
};

void PrintTo(const Query& query, std::ostream* out) {
  *out << query.name;
}

const std::vector<Query> QUERIES = {
    {.name = "OfAPath",
     .ask = [](ConfigDBProbe& reader) { return reader.pathSyncStatus("/a/x"); },
     .function = "pathSyncStatus"},
    {.name = "OfAFolder",
     .ask = [](ConfigDBProbe& reader) { return onlyStatus(reader.directorySyncStatus("/a/"), "/a/x"); },
     .function = "directorySyncStatus",
     .answered = {"Fetch status for dir: /a/", "Num of lemenets returned: 1"},
     .failed = {"Fetch status for dir: /a/", "Cannot prepare SQL statement"}},
    {.name = "OfAFoldersItems",
     .ask = [](ConfigDBProbe& reader) { return onlyStatus(reader.childSyncStatus("/a/", 10), "x"); },
     .function = "childSyncStatus"},
    {.name = "OfTheLocalRoot",
     .ask = [](ConfigDBProbe& reader) { return StatusCode{std::stoi(reader.getLocalRoot().value_or("-1"))}; },
     .function = "getLocalRoot",
     .failed = {"Cannot prepare SQL statement for fetching local_root"},
     .failedOpenKeepsLock = true}};

/// SQL that gives the item another status.
std::string updateTo(int status) {
  const auto number = std::to_string(status);
  return "UPDATE ea SET status = " + number + "; UPDATE configuration SET local_root = '" + number + "';";
}

class QueriesTest : public ::testing::Test {
 protected:
  fs::path file() const { return environment_.container() / "config.db"; }
  void run(const std::string& sql) { Database(file()).run(sql); }

  /// Makes a database with one item.
  void store(int status) {
    run("CREATE TABLE ea (path TEXT, status INTEGER); INSERT INTO ea (path) VALUES ('/a/x');"
        "CREATE TABLE configuration (local_root TEXT); INSERT INTO configuration VALUES ('');" +
        updateTo(status));
  }

  Environment environment_;
  ConfigDBProbe reader_;
};

class EveryQuery : public QueriesTest, public ::testing::WithParamInterface<Query> {
 protected:
  StatusCode ask() { return GetParam().ask(reader_); }

  void expectThatNothingIsKept() {
    EXPECT_EQ(reader_.db(), nullptr);
    EXPECT_EQ(openDescriptors(file()), 0U);
    EXPECT_FALSE(reader_.isLocked());
  }

  void expectToFailOnOpening() {
    const LogRecorder log;
    EXPECT_EQ(ask(), -1);
    EXPECT_THAT(log.records(), ElementsAre(FieldsAre(LogLevel::Debug, _, "Cannot open database", "connect", _, _)));
    EXPECT_NE(reader_.db(), nullptr);
    EXPECT_EQ(reader_.isLocked(), GetParam().failedOpenKeepsLock);
    if (GetParam().failedOpenKeepsLock) reader_.lock().unlock();
  }

  void expectToFailOnTheStatement() {
    const LogRecorder log;
    EXPECT_EQ(ask(), -1);
    const auto& query = GetParam();
    EXPECT_EQ(log.messages(), query.failed);
    EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(query.failed.back()));
    EXPECT_THAT(log.records().back(), FieldsAre(LogLevel::Warning, _, _, query.function, _, _));
    EXPECT_EQ(reader_.db(), nullptr);
    EXPECT_FALSE(reader_.isLocked());
  }
};

INSTANTIATE_TEST_SUITE_P(, EveryQuery, ::testing::ValuesIn(QUERIES),
                         [](const auto& query) { return query.param.name; });

// --- The file -------------------------------------------------------------------------------------------------------

TEST_P(EveryQuery, KeepsNeitherTheFileNorTheLock) {
  store(1);
  for (int i = 0; i < 3; ++i) {
    const LogRecorder log;
    EXPECT_EQ(ask(), 1);
    EXPECT_EQ(log.messages(), GetParam().answered);
    expectThatNothingIsKept();
  }
  run("DELETE FROM ea; DELETE FROM configuration");
  EXPECT_EQ(ask(), -1);
  expectThatNothingIsKept();
}

TEST_P(EveryQuery, NeitherChangesTheFileNorMakesOthers) {
  store(1);
  const auto content = readFile(file());
  const auto changed = fs::last_write_time(file());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(), 1);
  EXPECT_EQ(readFile(file()), content);
  EXPECT_EQ(fs::last_write_time(file()), changed);
  EXPECT_EQ(std::distance(fs::directory_iterator(environment_.container()), fs::directory_iterator()), 1);
}

TEST_P(EveryQuery, UsesThePathOfTheFirstOpeningEvenOfAFailedOne) {
  expectToFailOnOpening();
  store(1);
  const TemporaryFolder other;
  const ScopedVariable moved("VORNET_GROUP_CONTAINERS", other.path().string());
  EXPECT_FALSE(reader_._getSyncDBPath().starts_with(environment_.container().string()));
  EXPECT_EQ(ask(), -1);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(), 1);
}

TEST_P(EveryQuery, FailsByTurnsOnOpeningAndOnTheHandleThatItLeavesWhileTheFileIsAbsentOrUnreadable) {
  for (const bool isAbsent : {true, false}) {
    if (!isAbsent) fs::create_symlink(file(), file());
    for (int i = 0; i < 2; ++i) {
      expectToFailOnOpening();
      expectToFailOnTheStatement();
    }
    EXPECT_EQ(fs::symlink_status(file()).type(), isAbsent ? fs::file_type::not_found : fs::file_type::symlink);
  }
}

TEST_P(EveryQuery, FailsWithAWarningWhereTheFileIsNoDatabaseOrLacksTheTableOrColumn) {
  for (const std::string content :
       {"CREATE TABLE other (path TEXT, status INTEGER, local_root TEXT)",
        "CREATE TABLE ea (name TEXT); CREATE TABLE configuration (root TEXT)", "no database", ""}) {
    SCOPED_TRACE(content);
    fs::remove(file());
    if (content.starts_with("CREATE"))
      run(content);
    else
      writeFile(file(), content);
    const auto bytes = readFile(file());
    expectToFailOnTheStatement();
    EXPECT_EQ(openDescriptors(file()), 0U);
    EXPECT_EQ(readFile(file()), bytes);
  }
}

TEST_F(QueriesTest, FailuresAreLoggedWithTheirSourceFiles) {
  const LogRecorder log;
  for (int i = 0; i < 2; ++i) reader_.getLocalRoot();
  EXPECT_THAT(log.records(), ElementsAre(Field(&XCGLogDetails::fileName, "src/db/SyncDB"),
                                         Field(&XCGLogDetails::fileName, "src/db/ConfigDB")));
  reader_.lock().unlock();
}

// --- Other processes' writes ----------------------------------------------------------------------------------------

TEST_P(EveryQuery, SeesAChange) {
  store(1);
  EXPECT_EQ(ask(), 1);
  run(updateTo(2));
  EXPECT_EQ(ask(), 2);
  run("DELETE FROM ea; DELETE FROM configuration");
  EXPECT_EQ(ask(), -1);
  run("INSERT INTO ea VALUES ('/a/x', 0); INSERT INTO configuration VALUES ('0')");
  EXPECT_EQ(ask(), 0);
}

TEST_P(EveryQuery, SeesAFilePutInPlaceOfTheDatabase) {
  const auto replacement = environment_.folder() / "new.db";
  store(2);
  fs::rename(file(), replacement);
  store(1);
  EXPECT_EQ(ask(), 1);
  fs::rename(replacement, file());
  EXPECT_EQ(ask(), 2);
}

TEST_P(EveryQuery, SeesAFileThatComesBackAfterAnOpeningAndItsHandleHaveFailed) {
  store(1);
  EXPECT_EQ(ask(), 1);
  fs::remove(file());
  expectToFailOnOpening();
  store(2);
  expectToFailOnTheStatement();
  EXPECT_EQ(ask(), 2);
}

TEST_P(EveryQuery, ReadsAWriteAheadLogToo) {
  store(1);
  Database writer(file());
  writer.run("PRAGMA journal_mode=WAL;" + updateTo(1));
  EXPECT_EQ(ask(), 1);
  writer.run(updateTo(2));
  EXPECT_EQ(ask(), 2);
  writer.run("BEGIN IMMEDIATE;" + updateTo(0));
  EXPECT_EQ(ask(), 2);
  writer.run("COMMIT");
  EXPECT_EQ(ask(), 0);
}

TEST_P(EveryQuery, IsNotDisturbedByAWritersReservedLock) {
  store(2);
  Database writer(file());
  writer.run("BEGIN IMMEDIATE;" + updateTo(1));
  const LogRecorder log;
  EXPECT_EQ(ask(), 2);
  EXPECT_EQ(log.messages(), GetParam().answered);
  writer.run("COMMIT");
  EXPECT_EQ(ask(), 1);
}

TEST_P(EveryQuery, FailsWithAWarningWhileTheFileIsLockedAndLetsTheWriterCommit) {
  store(2);
  Database writer(file());
  writer.run("BEGIN EXCLUSIVE;" + updateTo(1));
  for (int i = 0; i < 2; ++i) expectToFailOnTheStatement();
  writer.run("COMMIT");
  EXPECT_EQ(ask(), 1);
}

TEST_F(QueriesTest, CountTheFailuresOfThisThreadThatALockCausedAndNoOthers) {
  store(1);
  const auto before = SyncDB::lockedQueriesOfThisThread();
  const auto counted = [&] { return SyncDB::lockedQueriesOfThisThread() - before; };
  reader_.pathSyncStatus("/a/x");
  reader_.pathSyncStatus("/a/gone");
  EXPECT_EQ(counted(), 0U);
  Database writer(file());
  writer.run("BEGIN EXCLUSIVE");
  reader_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 1U);
  reader_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 2U) << "also without waiting";
  reader_.directorySyncStatus("/a/");
  EXPECT_EQ(counted(), 3U);
  EXPECT_EQ(reader_.childSyncStatus("/a/", 10), std::nullopt) << "unlike a folder without items";
  EXPECT_EQ(counted(), 4U);
  EXPECT_EQ(onAnotherThread([&] {
              reader_.pathSyncStatus("/a/x");
              return SyncDB::lockedQueriesOfThisThread();
            }),
            1U);
  EXPECT_EQ(counted(), 4U);
  writer.run("COMMIT; DROP TABLE ea");
  for (const auto& query : QUERIES) query.ask(reader_);
  fs::remove(file());
  reader_.pathSyncStatus("/a/x");
  EXPECT_EQ(counted(), 4U) << "a database that cannot be read is not locked";
}

/// A writer that commits 100 times a second until it ends.
class Writer {
 public:
  explicit Writer(const fs::path& file) : database_(file), thread_([this] { work(); }) {}
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
bool impatientLookUp(const fs::path& file) {
  sqlite3* db = nullptr;
  const bool works = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
                     sqlite3_exec(db, "SELECT status FROM ea", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return works;
}

TEST_F(QueriesTest, NoneFailsWhileAWriterCommitsHundredTimesASecond) {
  constexpr int COMMITS = 200;
  constexpr int ROUNDS = 20;
  // A round proves nothing if it met no lock, or if the machine stopped the writer while it held the lock.
  constexpr milliseconds LONG_LOCK{5};
  store(2);
  for (int round = 0; round < ROUNDS; ++round) {
    const LogRecorder log(LogLevel::Warning);
    Writer writer(file());
    int locksMet = 0;
    int failures = 0;
    while (writer.commits() < COMMITS) {
      locksMet += !impatientLookUp(file());
      for (const auto& query : QUERIES) failures += query.ask(reader_) != 2;
    }
    if (locksMet == 0 || (failures > 0 && writer.longestLock() > LONG_LOCK)) continue;
    EXPECT_EQ(failures, 0) << "longest lock " << writer.longestLock().count() << " ms";
    EXPECT_THAT(log.messages(), IsEmpty());
    return;
  }
  FAIL() << "no round in which the writer ran as it should";
}

// --- Threads --------------------------------------------------------------------------------------------------------

TEST_P(EveryQuery, IsAnsweredForTheThreadThatHoldsTheLock) {
  store(1);
  const std::lock_guard guard(reader_.lock());
  EXPECT_EQ(ask(), 1);
}

TEST_P(EveryQuery, WaitsForTheLock) {
  store(1);
  Gate asking;
  std::unique_lock guard(reader_.lock());
  auto answer = std::async(std::launch::async, [&] {
    asking.open();
    return ask();
  });
  asking.pass();
  // Another reader's queries come and go meanwhile.
  ConfigDBProbe other;
  for (int i = 0; i < 20; ++i) EXPECT_EQ(GetParam().ask(other), 1);
  EXPECT_FALSE(isDone(answer));
  EXPECT_EQ(reader_.db(), nullptr);
  guard.unlock();
  EXPECT_EQ(answer.get(), 1);
}

TEST_P(EveryQuery, IsAnsweredForAnyThread) {
  store(1);
  std::atomic<int> right = 0;
  inParallel(4, [&](std::size_t) {
    for (int i = 0; i < 50; ++i) right += ask() == 1;
  });
  EXPECT_EQ(right, 200);
  expectThatNothingIsKept();
}

using QueriesDeathTest = ProcessStops;

TEST_F(QueriesDeathTest, WithoutAGroupContainerReadersAreMadeAndEndButQueriesStopTheProcessWithoutAMessage) {
  const Environment environment;
  const TemporaryFolder folder;
  writeFile(folder.path() / App().APP_GROUP, "a file in the container's place");
  const ScopedVariable containers("VORNET_GROUP_CONTAINERS", folder.path().string());
  const StandardErrorLog log;
  const auto onlyTheReason = AllOf(HasSubstr("no group container"), Not(HasSubstr("<")));
  ConfigDBProbe reader;
  EXPECT_EQ(reader.db(), nullptr);
  for (const auto& query : QUERIES) EXPECT_DEATH(query.ask(reader), onlyTheReason) << query.name;
  EXPECT_DEATH(SyncDB().pathSyncStatus("/a"), onlyTheReason);
}

}  // namespace
}  // namespace vornet::test
