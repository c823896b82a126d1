#include "db/SyncDB.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
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

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Rows = std::vector<std::pair<std::string, int>>;
using Statuses = SyncDB::Statuses;

class SyncDBTest : public ::testing::Test {
 protected:
  fs::path file() const { return environment_.container() / "sync.db"; }
  void store(const Rows& rows) { makeSyncDatabase(file(), rows); }
  void run(const std::string& sql) { Database(file()).run(sql); }

  Environment environment_;
  SyncDBProbe database_;
};

TEST_F(SyncDBTest, ConnectingOpensTheFileAndDisconnectingClosesItOnceWithoutAMessage) {
  store({});
  const LogRecorder log;
  database_.disconnect();
  ASSERT_TRUE(database_.connect());
  EXPECT_NE(database_.db(), nullptr);
  EXPECT_EQ(sqlite3_db_filename(database_.db(), "main"), file().string());
  EXPECT_EQ(openDescriptors(file()), 1U);
  for (int i = 0; i < 2; ++i) {
    database_.disconnect();
    EXPECT_EQ(database_.db(), nullptr);
    EXPECT_EQ(openDescriptors(file()), 0U);
  }
  EXPECT_THAT(log.messages(), IsEmpty());
}

// --- One path -------------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, FindsTheStatusOfAFileAndOfAFolderStoredWithASlash) {
  const Rows rows = {{"/a/b", 2},
                     {"/it's", 2},
                     {"/x' OR '1'='1", 1},
                     {"/\u00fc \U0001F600/\n", 2},
                     {"/" + std::string(100'000, 'x'), 1},
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

TEST_F(SyncDBTest, AFoldersStatusesAreItsOwnItsFilesAndTheFoldersBelowWhoseNumberIsLogged) {
  Rows many;
  for (int i = 0; i < 10'000; ++i) many.emplace_back("/a/item " + std::to_string(i), i % 4 - 1);
  const struct {
    const char* name;
    std::string folder;
    Rows rows;
    Statuses statuses;
  } cases[] = {
      {"its own, its files and the folders below",
       "/a/b/",
       {{"/a/b/", 0}, {"/a/b/x", 1}, {"/a/b/c/", 2}, {"/a/b/c/d/", -1}, {"/a/b/c/y", 2}, {"/a/bc", 2}},
       {{"/a/b/", 0}, {"/a/b/x", 1}, {"/a/b/c/", 2}, {"/a/b/c/d/", -1}}},
      {"no siblings",
       "/a/b/",
       {{"/a/", 1}, {"/a", 1}, {"/a/b", 1}, {"/a/b!", 1}, {"/a/b0", 1}, {"/a/B/x", 1}, {"/a/b/x", 2}, {"x/a/b/x", 1}},
       {{"/a/b/x", 2}}},
      {"the top level and every folder for the root",
       "/",
       {{"/", 2}, {"/x", 1}, {"/d/", 0}, {"/d/y", 1}, {"/d/e/", 2}, {"/d/e/z", 1}},
       {{"/", 2}, {"/x", 1}, {"/d/", 0}, {"/d/e/", 2}}},
      {"the last character taken for a slash: from /a up to /0", "/a", {{"/a", 1}, {"/a-b", 2}, {"/z", 0}}, {}},
      {"from / up to 0", "/", {{"/a", 1}, {"/a-b", 2}, {"/z", 0}}, {{"/a", 1}, {"/a-b", 2}, {"/z", 0}}},
      {"none without rows", "/a/", {{"/b/x", 1}}, {}},
      {"the later of rows with the same path",
       "/a/",
       {{"/a/x", 1}, {"/a/y", 0}, {"/a/x", 2}},
       {{"/a/x", 2}, {"/a/y", 0}}},
      {"many", "/a/", many, {many.begin(), many.end()}}};
  for (const auto& [name, folder, rows, statuses] : cases) {
    SCOPED_TRACE(name);
    fs::remove(file());
    store(rows);
    const LogRecorder log;
    EXPECT_EQ(database_.directorySyncStatus(folder), statuses.empty() ? std::nullopt : std::optional(statuses));
    EXPECT_THAT(log.messages(), ElementsAre("Fetch status for dir: " + folder,
                                            "Num of lemenets returned: " + std::to_string(statuses.size())));
    EXPECT_THAT(log.messages(LogLevel::Debug), SizeIs(2));
    EXPECT_EQ(log.records().front().functionName, "directorySyncStatus");
  }
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

// --- What goes wrong ------------------------------------------------------------------------------------------------

TEST_F(SyncDBTest, ADatabaseThatIsCutShortGivesMinusOne) {
  Rows rows;
  for (int i = 0; i < 2'000; ++i) rows.emplace_back("/a/item " + std::to_string(i), 2);
  store(rows);
  fs::resize_file(file(), fs::file_size(file()) / 2);
  EXPECT_EQ(database_.pathSyncStatus("/a/item 1999"), -1);
  EXPECT_EQ(openDescriptors(file()), 0U);
}

TEST_F(SyncDBTest, TheEmptyFolderIsAFailureLikeAnyOtherWhenThereIsNoDatabase) {
  EXPECT_EQ(database_.directorySyncStatus(""), std::nullopt);
}

class SyncDBDeathTest : public ProcessStops {
 protected:
  fs::path file() const { return environment_.container() / "sync.db"; }

  Environment environment_;
};

TEST_F(SyncDBDeathTest, TheEmptyFolderStopsTheProcess) {
  makeSyncDatabase(file(), {{"/a", 1}});
  EXPECT_DEATH(SyncDB().directorySyncStatus(""), "folder without a path");
}

TEST_F(SyncDBDeathTest, APathThatIsNotUTF8StopsTheProcess) {
  makeSyncDatabase(file(), {});
  Database(file()).run("INSERT INTO ea VALUES (CAST(X'2F612FFF' AS TEXT), 1)");
  EXPECT_DEATH(SyncDB().directorySyncStatus("/a/"), "not text");
}

TEST_F(SyncDBDeathTest, APathThatIsNullStopsTheProcess) {
  // NULL is in no range. This view's path is computed again at each use: of a thousand rows some are in the range and
  // then are NULL.
  Database(file()).run(
      "CREATE VIEW ea AS WITH RECURSIVE counter(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM counter LIMIT 1000)"
      "SELECT CASE WHEN abs(random() % 2) = 1 THEN '/a/x' END AS path, 1 AS status FROM counter");
  EXPECT_DEATH(SyncDB().directorySyncStatus("/a/"), "not text");
}

TEST_F(SyncDBDeathTest, AQueryThatRunsWhileTheProcessEndsIsLeftAlone) {
  makeSyncDatabase(file(), {{"/a", 1}});
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

}  // namespace
}  // namespace vornet::test
