#include "db/SyncDB.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/ProcessStops.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

using Statuses = SyncDB::Statuses;

class SyncDBTest : public ::testing::Test {
 protected:
  fs::path file() const { return environment_.container() / "sync.db"; }
  void store(const std::vector<std::pair<std::string, int>>& rows) { makeSyncDatabase(file(), rows); }
  void run(const std::string& sql) { Database(file()).run(sql); }

  std::set<std::string> filesInContainer() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(environment_.container())) names.insert(entry.path().filename());
    return names;
  }

  Environment environment_;
  SyncDBProbe database_;
};

// --- The connection -------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, ANewReaderHasNoConnection) {
  EXPECT_EQ(database_.db(), nullptr);
}

TEST_F(SyncDBTest, TheFileIsInTheGroupContainer) {
  EXPECT_EQ(database_._getSyncDBPath(), file().string());
}

TEST_F(SyncDBTest, ConnectingOpensTheFileAndDisconnectingClosesItWithoutAMessage) {
  store({});
  const LogRecorder log;
  ASSERT_TRUE(database_.connect());
  EXPECT_NE(database_.db(), nullptr);
  EXPECT_EQ(sqlite3_db_filename(database_.db(), "main"), file().string());
  EXPECT_EQ(openDescriptors(file()), 1U);
  database_.disconnect();
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_EQ(openDescriptors(file()), 0U);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(SyncDBTest, TheConnectionIsReadOnly) {
  store({});
  ASSERT_TRUE(database_.connect());
  EXPECT_EQ(sqlite3_db_readonly(database_.db(), "main"), 1);
  EXPECT_EQ(sqlite3_exec(database_.db(), "INSERT INTO ea VALUES ('/a', 1)", nullptr, nullptr, nullptr),
            SQLITE_READONLY);
  database_.disconnect();
}

TEST_F(SyncDBTest, ConnectingAgainKeepsTheOpenConnection) {
  store({});
  ASSERT_TRUE(database_.connect());
  auto* const handle = database_.db();
  EXPECT_TRUE(database_.connect());
  EXPECT_EQ(database_.db(), handle);
  EXPECT_EQ(openDescriptors(file()), 1U);
  database_.disconnect();
}

TEST_F(SyncDBTest, DisconnectingWithoutAConnectionDoesAndSaysNothing) {
  const LogRecorder log;
  database_.disconnect();
  database_.disconnect();
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(SyncDBTest, AnAbsentFileCannotBeOpenedAndIsNotMade) {
  const LogRecorder log;
  EXPECT_FALSE(database_.connect());
  EXPECT_THAT(log.messages(), ElementsAre("Cannot open database"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Debug);
  EXPECT_EQ(log.records().front().functionName, "connect");
  EXPECT_EQ(log.records().front().fileName, "src/db/SyncDB");
  EXPECT_FALSE(fs::exists(file()));
}

TEST_F(SyncDBTest, AHandleThatAFailedOpenLeavesIsKept) {
  EXPECT_FALSE(database_.connect());
  EXPECT_NE(database_.db(), nullptr);
  EXPECT_TRUE(database_.connect());
  database_.disconnect();
  EXPECT_EQ(database_.db(), nullptr);
}

TEST_F(SyncDBTest, ThePathIsKeptFromTheFirstConnectOn) {
  store({{"/a", 1}});
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
  const TemporaryFolder other;
  const ScopedVariable moved("VORNET_GROUP_CONTAINERS", other.path().string());
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
  EXPECT_NE(database_._getSyncDBPath(), file().string());
  EXPECT_EQ(SyncDB().pathSyncStatus("/a"), -1);
}

TEST_F(SyncDBTest, ThePathIsKeptFromAFailedConnectOnToo) {
  EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
  store({{"/a", 1}});
  const TemporaryFolder other;
  const ScopedVariable moved("VORNET_GROUP_CONTAINERS", other.path().string());
  database_.pathSyncStatus("/a");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
}

TEST_F(SyncDBTest, TheSharedReaderReadsTheSyncDatabase) {
  store({{"/a", 2}});
  EXPECT_EQ(syncDB().pathSyncStatus("/a"), 2);
}

// --- One path -------------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, FindsTheStatusOfAFileAndOfAFolderStoredWithASlash) {
  const std::string longPath = "/" + std::string(100'000, 'x');
  const std::vector<std::pair<std::string, int>> rows = {{"/a/b", 2},
                                                         {"/it's", 2},
                                                         {"/x' OR '1'='1", 1},
                                                         {"/\u00fc \U0001F600/\n", 2},
                                                         {longPath, 1},
                                                         {"/minus", -1},
                                                         {"/zero", 0},
                                                         {"/other", 17},
                                                         {"/low", std::numeric_limits<int>::min()},
                                                         {"/a/b/c/", 1},
                                                         {"/", 2}};
  store(rows);
  const LogRecorder log;
  for (const auto& [path, status] : rows) EXPECT_EQ(database_.pathSyncStatus(path), status) << path.substr(0, 100);
  EXPECT_EQ(database_.pathSyncStatus("/a/b/c"), 1);
  EXPECT_EQ(database_.pathSyncStatus(""), 2) << "the root";
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(SyncDBTest, WhenBothFormsAreStoredOneOfThemIsTheAnswer) {
  store({{"/a", 1}, {"/a/", 2}});
  EXPECT_THAT(database_.pathSyncStatus("/a"), ::testing::AnyOf(1, 2));
}

TEST_F(SyncDBTest, APathWithoutARowIsMinusOneWithoutAMessage) {
  store({{"/a/b", 2}});
  const LogRecorder log;
  for (const char* path : {"/a", "/a/b/", "/a/B", "/a/_", "/a/%", "a/b", "", "' OR '1'='1"})
    EXPECT_EQ(database_.pathSyncStatus(path), -1) << path;
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(SyncDBTest, CodesAreReadAs32BitIntegers) {
  store({});
  run("INSERT INTO ea VALUES ('/a/big', 4294967298), ('/a/null', NULL), ('/a/text', 'x'), ('/a/minus', -7)");
  const Statuses expected = {{"/a/big", 2}, {"/a/null", 0}, {"/a/text", 0}, {"/a/minus", -7}};
  for (const auto& [path, status] : expected) EXPECT_EQ(database_.pathSyncStatus(path), status) << path;
  EXPECT_EQ(database_.directorySyncStatus("/a/"), expected);
}

// --- One folder -----------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, AFoldersStatusesAreItsOwnItsFilesAndTheFoldersBelow) {
  store({{"/a/b/", 0}, {"/a/b/x", 1}, {"/a/b/c/", 2}, {"/a/b/c/d/", -1}, {"/a/b/c/y", 2}, {"/a/bc", 2}});
  EXPECT_EQ(database_.directorySyncStatus("/a/b/"),
            (Statuses{{"/a/b/", 0}, {"/a/b/x", 1}, {"/a/b/c/", 2}, {"/a/b/c/d/", -1}}));
}

TEST_F(SyncDBTest, AFoldersStatusesLeaveOutItsSiblings) {
  store({{"/a/", 1}, {"/a", 1}, {"/a/b", 1}, {"/a/b!", 1}, {"/a/b0", 1}, {"/a/B/x", 1}, {"/a/b/x", 2}, {"x/a/b/x", 1}});
  EXPECT_EQ(database_.directorySyncStatus("/a/b/"), (Statuses{{"/a/b/x", 2}}));
}

TEST_F(SyncDBTest, TheStatusesOfTheRootAreThoseOfTheTopLevelAndOfEveryFolder) {
  store({{"/", 2}, {"/x", 1}, {"/d/", 0}, {"/d/y", 1}, {"/d/e/", 2}, {"/d/e/z", 1}});
  EXPECT_EQ(database_.directorySyncStatus("/"), (Statuses{{"/", 2}, {"/x", 1}, {"/d/", 0}, {"/d/e/", 2}}));
}

TEST_F(SyncDBTest, TheLastCharacterOfTheFolderIsTakenForTheSlashItShouldBe) {
  store({{"/a", 1}, {"/a-b", 2}, {"/z", 0}});
  // From "/a" up to "/0".
  EXPECT_EQ(database_.directorySyncStatus("/a"), std::nullopt);
  // From "/" up to "0".
  EXPECT_EQ(database_.directorySyncStatus("/"), (Statuses{{"/a", 1}, {"/a-b", 2}, {"/z", 0}}));
}

TEST_F(SyncDBTest, AFolderQueryLogsTheFolderAndTheNumberOfEntries) {
  store({{"/a/", 0}, {"/a/x", 1}, {"/a/y", 1}});
  const LogRecorder log;
  database_.directorySyncStatus("/a/");
  EXPECT_THAT(log.messages(), ElementsAre("Fetch status for dir: /a/", "Num of lemenets returned: 3"));
  EXPECT_THAT(log.messages(LogLevel::Debug), ::testing::SizeIs(2));
  EXPECT_EQ(log.records().front().functionName, "directorySyncStatus");
}

TEST_F(SyncDBTest, AFolderWithoutRowsHasNoValueAndLogsZeroEntries) {
  store({{"/b/x", 1}});
  const LogRecorder log;
  EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
  EXPECT_THAT(log.messages(), ElementsAre("Fetch status for dir: /a/", "Num of lemenets returned: 0"));
}

TEST_F(SyncDBTest, TheLaterOfRowsWithTheSamePathWinsAndCountsOnce) {
  store({{"/a/x", 1}, {"/a/y", 0}, {"/a/x", 2}});
  const LogRecorder log;
  EXPECT_EQ(database_.directorySyncStatus("/a/"), (Statuses{{"/a/x", 2}, {"/a/y", 0}}));
  EXPECT_EQ(log.count(LogLevel::Debug, "Num of lemenets returned: 2"), 1U);
}

TEST_F(SyncDBTest, WildcardsInAFoldersNameFindItsOwnRows) {
  for (const std::string dir : {"/100%/", "/a_b/", "/%/", "/_/"}) {
    fs::remove(file());
    store({{dir, 1}, {dir + "x", 2}, {dir + "c/", 0}, {dir + "c/y", 2}, {dir + "%", 1}, {"/other/x", 2}});
    EXPECT_EQ(database_.directorySyncStatus(dir), (Statuses{{dir, 1}, {dir + "x", 2}, {dir + "c/", 0}, {dir + "%", 1}}))
        << dir;
  }
}

TEST_F(SyncDBTest, DeeperFilesAreLeftOutWithoutRegardToCase) {
  // Where the column compares without regard to case, the range lets such rows through, and LIKE must stop them.
  run("CREATE TABLE ea (path TEXT COLLATE NOCASE, status INTEGER);"
      "INSERT INTO ea VALUES ('/A/X', 1), ('/A/C/', 2), ('/A/C/Y', 0)");
  EXPECT_EQ(database_.directorySyncStatus("/a/"), (Statuses{{"/A/X", 1}, {"/A/C/", 2}}));
}

TEST_F(SyncDBTest, AFolderMayHoldManyEntries) {
  std::vector<std::pair<std::string, int>> rows;
  Statuses expected;
  for (int i = 0; i < 10'000; ++i) {
    rows.emplace_back("/a/item " + std::to_string(i), i % 4 - 1);
    expected[rows.back().first] = rows.back().second;
  }
  store(rows);
  const LogRecorder log;
  EXPECT_EQ(database_.directorySyncStatus("/a/"), expected);
  EXPECT_EQ(log.count(LogLevel::Debug, "Num of lemenets returned: 10000"), 1U);
}

// --- What goes wrong ------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, AFileThatIsAbsentOrCannotBeReadGivesNoValueAndADebugMessage) {
  for (const bool isAbsent : {true, false}) {
    if (!isAbsent) fs::create_symlink(file(), file());
    const LogRecorder log;
    EXPECT_EQ(SyncDB().directorySyncStatus("/a/"), std::nullopt);
    EXPECT_EQ(SyncDB().pathSyncStatus("/a"), -1);
    EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Cannot open database", "Cannot open database"));
    EXPECT_THAT(log.messages(), ::testing::SizeIs(2));
  }
}

TEST_F(SyncDBTest, AfterAFailedOpenTheNextQueryFailsOnTheHandleAndTheOneAfterThatWorks) {
  const LogRecorder log;
  EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
  EXPECT_NE(database_.db(), nullptr);
  store({{"/a", 2}});
  EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_EQ(database_.pathSyncStatus("/a"), 2);
  EXPECT_THAT(log.messages(), ElementsAre("Cannot open database", "Cannot prepare SQL statement"));
  EXPECT_EQ(log.records()[0].logLevel, LogLevel::Debug);
  EXPECT_EQ(log.records()[1].logLevel, LogLevel::Warning);
}

TEST_F(SyncDBTest, TheSequenceAfterAFailedOpenIsTheSameForFolders) {
  const LogRecorder log;
  EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
  EXPECT_NE(database_.db(), nullptr);
  store({{"/a/x", 2}});
  EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_EQ(database_.directorySyncStatus("/a/"), (Statuses{{"/a/x", 2}}));
  EXPECT_THAT(log.messages(),
              ElementsAre("Cannot open database", "Fetch status for dir: /a/", "Cannot prepare SQL statement",
                          "Fetch status for dir: /a/", "Num of lemenets returned: 1"));
}

TEST_F(SyncDBTest, WhileTheFileStaysAbsentTheTwoFailuresAlternate) {
  const LogRecorder log;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
  EXPECT_THAT(log.messages(), ElementsAre("Cannot open database", "Cannot prepare SQL statement",
                                          "Cannot open database", "Cannot prepare SQL statement"));
}

TEST_F(SyncDBTest, AFileWithoutTableOrColumnsGivesNoValueAndAWarning) {
  for (const std::string content :
       {"CREATE TABLE other (path TEXT, status INTEGER)", "CREATE TABLE ea (name TEXT)", "no database", ""}) {
    fs::remove(file());
    if (content.starts_with("CREATE"))
      run(content);
    else
      writeFile(file(), content);
    const auto bytes = readFile(file());
    const LogRecorder log;
    EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
    EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
    EXPECT_THAT(log.messages(), ElementsAre("Cannot prepare SQL statement", "Fetch status for dir: /a/",
                                            "Cannot prepare SQL statement"))
        << content;
    EXPECT_EQ(log.messages(LogLevel::Warning).size(), 2U);
    EXPECT_EQ(log.records()[0].functionName, "pathSyncStatus");
    EXPECT_EQ(log.records()[2].functionName, "directorySyncStatus");
    EXPECT_EQ(readFile(file()), bytes);
  }
}

TEST_F(SyncDBTest, ADatabaseThatIsCutShortGivesMinusOne) {
  std::vector<std::pair<std::string, int>> rows;
  for (int i = 0; i < 2'000; ++i) rows.emplace_back("/a/item " + std::to_string(i), 2);
  store(rows);
  fs::resize_file(file(), fs::file_size(file()) / 2);
  EXPECT_EQ(database_.pathSyncStatus("/a/item 1999"), -1);
  EXPECT_EQ(openDescriptors(file()), 0U);
}

TEST_F(SyncDBTest, TheConnectionIsClosedAfterEachKindOfFailureThatFollowsTheOpening) {
  run("CREATE TABLE other (path TEXT)");
  database_.pathSyncStatus("/a");
  EXPECT_EQ(database_.db(), nullptr);
  database_.directorySyncStatus("/a/");
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_EQ(openDescriptors(file()), 0U);
  EXPECT_FALSE(database_.isLocked());
}

TEST_F(SyncDBTest, TheEmptyFolderIsAFailureLikeAnyOtherWhenThereIsNoDatabase) {
  EXPECT_EQ(database_.directorySyncStatus(""), std::nullopt);
}

TEST_F(SyncDBTest, AReaderIsMadeAndEndsWithoutAGroupContainer) {
  const TemporaryFolder folder;
  writeFile(folder.path() / App().APP_GROUP, "a file in the container's place");
  const ScopedVariable containers("VORNET_GROUP_CONTAINERS", folder.path().string());
  EXPECT_EQ(SyncDBProbe().db(), nullptr);
}

using SyncDBDeathTest = ProcessStops;

TEST_F(SyncDBDeathTest, WithoutAGroupContainerAQueryStopsTheProcessWithoutAMessage) {
  const Environment environment;
  const TemporaryFolder folder;
  writeFile(folder.path() / App().APP_GROUP, "a file in the container's place");
  const ScopedVariable containers("VORNET_GROUP_CONTAINERS", folder.path().string());
  const StandardErrorLog log;
  const auto onlyTheReason = AllOf(HasSubstr("no group container"), Not(HasSubstr("<")));
  EXPECT_DEATH(SyncDB().pathSyncStatus("/a"), onlyTheReason);
  EXPECT_DEATH(SyncDB().directorySyncStatus("/a/"), onlyTheReason);
}

TEST_F(SyncDBDeathTest, TheEmptyFolderStopsTheProcess) {
  const Environment environment;
  makeSyncDatabase(environment.container() / "sync.db", {{"/a", 1}});
  EXPECT_DEATH(SyncDB().directorySyncStatus(""), "folder without a path");
}

TEST_F(SyncDBDeathTest, APathThatIsNotUTF8StopsTheProcess) {
  const Environment environment;
  const auto file = environment.container() / "sync.db";
  makeSyncDatabase(file, {});
  Database(file).run("INSERT INTO ea VALUES (CAST(X'2F612FFF' AS TEXT), 1)");
  EXPECT_DEATH(SyncDB().directorySyncStatus("/a/"), "not text");
}

TEST_F(SyncDBDeathTest, APathThatIsNullStopsTheProcess) {
  const Environment environment;
  // NULL is in no range. This view's path is computed again at each use: of a thousand rows some are in the range and
  // then are NULL.
  Database(environment.container() / "sync.db")
      .run(
          "CREATE VIEW ea AS WITH RECURSIVE counter(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM counter LIMIT 1000)"
          "SELECT CASE WHEN abs(random() % 2) = 1 THEN '/a/x' END AS path, 1 AS status FROM counter");
  EXPECT_DEATH(SyncDB().directorySyncStatus("/a/"), "not text");
}

TEST_F(SyncDBDeathTest, AQueryThatRunsWhileTheProcessEndsIsLeftAlone) {
  const Environment environment;
  makeSyncDatabase(environment.container() / "sync.db", {{"/a", 1}});
  const auto exitAmidQueries = [] {
    Gate asked;
    std::thread([&asked] {
      syncDB().pathSyncStatus("/a");
      asked.open();
      for (;;) syncDB().pathSyncStatus("/a");
    }).detach();
    asked.pass();
    std::exit(0);  // NOLINT: that threads go on meanwhile is the question
  };
  EXPECT_EXIT(exitAmidQueries(), ::testing::ExitedWithCode(0), "");
}

// --- Other processes' writes ----------------------------------------------------------------------------------------

TEST_F(SyncDBTest, AChangeIsSeenByTheNextQuery) {
  store({{"/a/x", 1}});
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 1);
  run("UPDATE ea SET status = 2");
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 2);
  run("INSERT INTO ea VALUES ('/a/y', 0)");
  EXPECT_EQ(database_.directorySyncStatus("/a/"), (Statuses{{"/a/x", 2}, {"/a/y", 0}}));
  run("DELETE FROM ea");
  EXPECT_EQ(database_.directorySyncStatus("/a/"), std::nullopt);
}

TEST_F(SyncDBTest, AFilePutInPlaceOfTheDatabaseIsSeenByTheNextQuery) {
  store({{"/a", 1}});
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
  makeSyncDatabase(environment_.container() / "new.db", {{"/a", 2}});
  fs::rename(environment_.container() / "new.db", file());
  EXPECT_EQ(database_.pathSyncStatus("/a"), 2);
}

TEST_F(SyncDBTest, AFileThatVanishesAndComesBackIsSeenAgain) {
  store({{"/a", 1}});
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
  fs::remove(file());
  EXPECT_EQ(database_.pathSyncStatus("/a"), -1);
  store({{"/a", 2}});
  database_.pathSyncStatus("/a");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 2);
}

TEST_F(SyncDBTest, TheFileIsNotHeldOpenBetweenQueries) {
  store({{"/a/x", 1}});
  for (int i = 0; i < 3; ++i) {
    database_.pathSyncStatus("/a/x");
    EXPECT_EQ(openDescriptors(file()), 0U);
    database_.directorySyncStatus("/a/");
    EXPECT_EQ(openDescriptors(file()), 0U);
    EXPECT_EQ(database_.db(), nullptr);
  }
}

TEST_F(SyncDBTest, QueriesNeitherChangeTheFileNorMakeOthers) {
  store({{"/a/x", 1}});
  const auto content = readFile(file());
  const auto changed = fs::last_write_time(file());
  const auto names = filesInContainer();
  for (int i = 0; i < 3; ++i) {
    database_.pathSyncStatus("/a/x");
    database_.directorySyncStatus("/a/");
    database_.pathSyncStatus("/absent");
  }
  EXPECT_EQ(readFile(file()), content);
  EXPECT_EQ(fs::last_write_time(file()), changed);
  EXPECT_EQ(filesInContainer(), names);
}

TEST_F(SyncDBTest, AWriteAheadLogIsReadToo) {
  Database writer(file());
  writer.run("PRAGMA journal_mode=WAL; CREATE TABLE ea (path TEXT, status INTEGER); INSERT INTO ea VALUES ('/a', 1)");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 1);
  writer.run("UPDATE ea SET status = 2");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 2);
  writer.run("BEGIN IMMEDIATE; UPDATE ea SET status = 0");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 2);
  writer.run("COMMIT");
  EXPECT_EQ(database_.pathSyncStatus("/a"), 0);
}

// --- Threads --------------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, TheLockIsReleasedAfterEveryKindOfQuery) {
  database_.pathSyncStatus("/a");
  EXPECT_FALSE(database_.isLocked()) << "after a failed open";
  database_.pathSyncStatus("/a");
  EXPECT_FALSE(database_.isLocked()) << "after a failed statement";
  database_.directorySyncStatus("/a/");
  EXPECT_FALSE(database_.isLocked()) << "after a failed open for a folder";
  database_.directorySyncStatus("/a/");
  EXPECT_FALSE(database_.isLocked()) << "after a failed statement for a folder";
  store({{"/a/x", 1}});
  database_.pathSyncStatus("/a/x");
  EXPECT_FALSE(database_.isLocked());
  database_.directorySyncStatus("/a/");
  EXPECT_FALSE(database_.isLocked());
  database_.directorySyncStatus("/none/");
  EXPECT_FALSE(database_.isLocked());
}

TEST_F(SyncDBTest, TheThreadThatHoldsTheLockMayQuery) {
  store({{"/a/x", 1}});
  const std::lock_guard guard(database_.lock());
  EXPECT_EQ(database_.pathSyncStatus("/a/x"), 1);
  EXPECT_EQ(database_.directorySyncStatus("/a/"), (Statuses{{"/a/x", 1}}));
}

TEST_F(SyncDBTest, AQueryWaitsForTheLock) {
  store({{"/a/x", 1}});
  Gate asking;
  std::unique_lock guard(database_.lock());
  auto answer = std::async(std::launch::async, [&] {
    asking.open();
    return database_.pathSyncStatus("/a/x");
  });
  asking.pass();
  // Another reader's queries come and go meanwhile.
  for (int i = 0; i < 20; ++i) EXPECT_EQ(SyncDB().pathSyncStatus("/a/x"), 1);
  EXPECT_FALSE(isDone(answer));
  EXPECT_EQ(database_.db(), nullptr);
  guard.unlock();
  EXPECT_EQ(answer.get(), 1);
}

TEST_F(SyncDBTest, AnyThreadMayAsk) {
  store({{"/a/x", 1}, {"/b/", 2}});
  std::atomic<int> right = 0;
  inParallel(4, [&](std::size_t) {
    for (int i = 0; i < 25; ++i) {
      right += database_.pathSyncStatus("/a/x") == 1;
      right += database_.pathSyncStatus("/b") == 2;
      right += database_.directorySyncStatus("/a/") == Statuses{{"/a/x", 1}};
    }
  });
  EXPECT_EQ(right, 300);
  EXPECT_EQ(openDescriptors(file()), 0U);
}

}  // namespace
}  // namespace vornet::test
