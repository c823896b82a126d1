// The statuses of a folder's items by one query, which equal those of the items' own queries letter by letter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/SyncDB.hpp"
#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"

namespace vornet::test {
namespace {

using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr std::size_t MANY = 50'000;

class ChildStatuses : public ::testing::TestWithParam<const char*> {
 protected:
  std::filesystem::path file() const { return environment_.container() / "sync.db"; }
  void run(const std::string& sql) { Database(file()).run(sql); }

  /// Makes the table, with `rows`: SQL values of path and status.
  void store(const std::vector<std::string>& rows) {
    Database database(file());
    database.run(GetParam());
    database.run("BEGIN");
    for (const auto& row : rows) database.run("INSERT OR IGNORE INTO ea (path, status) VALUES (" + row + ")");
    database.run("COMMIT");
  }

  Environment environment_;
  SyncDBProbe database_;
};

TEST_P(ChildStatuses, AreThoseOfEachItemsOwnQuery) {
  const std::vector<std::string> folders = {"/", "/d/", "/100%/", "/a_b/", "/[x]*/", "/b\\/", "/e\xcc\x81/"};
  const std::vector<std::string> names = {"plain",
                                          "folder",
                                          "both",
                                          "both the other way",
                                          "twice",
                                          "none",
                                          "-1",
                                          "7",
                                          "big",
                                          "text",
                                          "null",
                                          "100%",
                                          "a_b",
                                          "aXb",
                                          "[x]*",
                                          "b\\",
                                          "caf\xc3\xa9",
                                          "cafe\xcc\x81",
                                          "deep",
                                          "deep!",
                                          "deep0",
                                          "double",
                                          "'quoted'",
                                          "CASE",
                                          "case",
                                          "\xf0\x9f\x98\x80",
                                          " ",
                                          "d",
                                          "number",
                                          "nul",
                                          "x",
                                          "y",
                                          "0"};
  std::vector<std::string> rows = {"NULL, 2", "7, 2", "'', 2", "'plain', 2", "X'2F642F70', 2", "'elsewhere', 1"};
  for (auto folder : folders) {
    for (auto at = folder.find('\''); at != folder.npos; at = folder.find('\'', at + 2)) folder.insert(at, "'");
    const auto row = [&](const std::string& rest, const std::string& status) {
      rows.push_back("'" + folder + rest + "', " + status);
    };
    row("plain", "2");
    row("folder/", "1");
    row("both/", "0");
    row("both", "2");
    row("both the other way", "1");
    row("both the other way/", "2");
    row("twice", "2");
    row("twice", "0");
    row("-1", "-1");
    row("7", "7");
    row("big", "4294967298");
    row("text", "'x'");
    row("null", "NULL");
    row("100%", "0");
    row("a_b", "1");
    row("[x]*/", "2");
    row("b\\", "1");
    row("caf\xc3\xa9", "2");
    row("cafe\xcc\x81", "1");
    row("deep/", "1");
    for (int i = 0; i < 200; ++i) row("deep/" + std::to_string(i), "2");
    row("deep/er/x", "0");
    row("deep!", "0");
    row("deep0", "1");
    row("double//", "2");
    row("''quoted''", "2");
    row("CASE", "0");
    row("\xf0\x9f\x98\x80", "2");
    row(" ", "1");
    row("d/x", "2");
    row("/", "2");
    row("", "2");
    rows.push_back("CAST(X'2F642F6E756C0078' AS TEXT), 2");  // "/d/nul", a NUL, "x"
    rows.push_back("CAST(X'2F642F6FFF' AS TEXT), 2");        // no UTF-8
    rows.push_back("CAST('" + folder + "blob' AS BLOB), 2");
  }
  store(rows);
  for (const auto& folder : folders) {
    const auto found = database_.childSyncStatus(folder, MANY);
    ASSERT_TRUE(found) << folder;
    std::size_t matched = 0;
    for (const auto& name : names) {
      const auto status = database_.pathSyncStatus(folder + name);
      const auto row = found->find(name);
      EXPECT_EQ(row == found->end() ? -1 : row->second, status) << folder << name;
      matched += row != found->end();
    }
    for (const auto& [name, status] : *found)
      EXPECT_EQ(database_.pathSyncStatus(folder + name), status) << folder << name;
    EXPECT_GE(matched, 20U) << folder;
  }
}

TEST_P(ChildStatuses, SkipNoItemInAnyOrder) {
  std::vector<std::string> rows = {"'/d/a', 2"};  // behind the others where they are in the order of their statuses
  for (int i = 0; i < 100; ++i) rows.push_back("'/d/deep/" + std::to_string(i) + "', 1");
  rows.push_back("'/d/deep\xc4\xaf', 1");  // whose bytes in UTF-16 may be between those of "deep/" and "deep0"
  store(rows);
  const auto found = database_.childSyncStatus("/d/", MANY);
  EXPECT_THAT(found, Optional(UnorderedElementsAre(Pair("a", 2), Pair("deep\xc4\xaf", 1))));
}

TEST_P(ChildStatuses, EndBeyondTheMostThatAreWanted) {
  std::vector<std::string> rows;
  for (int i = 0; i < 100; ++i) rows.push_back("'/d/" + std::to_string(i) + "', 2");
  store(rows);
  EXPECT_THAT(database_.childSyncStatus("/d/", 100), Optional(SizeIs(100)));
  EXPECT_THAT(database_.childSyncStatus("/d/", 50), Optional(SizeIs(51)));
}

INSTANTIATE_TEST_SUITE_P(
    Tables, ChildStatuses,
    ::testing::Values("CREATE TABLE ea (path TEXT, status INTEGER)",
                      "CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX by_path ON ea (path)",
                      "CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX by_path ON ea (path, status)",
                      "CREATE TABLE ea (path TEXT PRIMARY KEY, status INTEGER)",
                      "CREATE TABLE ea (path TEXT PRIMARY KEY NOT NULL, status INTEGER) WITHOUT ROWID",
                      "CREATE TABLE ea (status, path)",
                      "CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX by_path ON ea (path DESC)",
                      // An index that is searched once for each status.
                      "CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX by_status ON ea (status, path);"
                      "ANALYZE; INSERT INTO sqlite_stat1 VALUES ('ea', 'by_status', '1000 500 1')",
                      "PRAGMA encoding='UTF-16le'; CREATE TABLE ea (path TEXT, status INTEGER)",
                      "PRAGMA encoding='UTF-16le'; CREATE TABLE ea (path TEXT PRIMARY KEY, status INTEGER)",
                      "PRAGMA encoding='UTF-16be'; CREATE TABLE ea (path TEXT PRIMARY KEY, status INTEGER)"));

class ChildStatusesFailing : public ChildStatuses {};

TEST_P(ChildStatusesFailing, AreNoneAtAllWherePathsAreNotComparedByteByByte) {
  store({"'/d/x', 2"});
  EXPECT_EQ(database_.childSyncStatus("/d/", MANY), std::nullopt);
  EXPECT_EQ(database_.db(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Collations, ChildStatusesFailing,
                         ::testing::Values("CREATE TABLE ea (path TEXT COLLATE NOCASE, status INTEGER)",
                                           "CREATE TABLE ea (path TEXT COLLATE RTRIM PRIMARY KEY, status INTEGER)"));

class ChildStatusesOfAFile : public ChildStatuses {};

TEST_P(ChildStatusesOfAFile, AreEmptyWhereEveryItemsAnswerIsThatItHasNoRow) {
  for (const std::string content : {"", "CREATE TABLE other (path TEXT)", "CREATE TABLE ea (path TEXT)"}) {
    if (!content.empty()) run(content);
    EXPECT_THAT(SyncDB().childSyncStatus("/d/", MANY), Optional(IsEmpty())) << content;
    EXPECT_EQ(SyncDB().pathSyncStatus("/d/x"), -1) << content;
    std::filesystem::remove(file());
  }
  store({"'/e/x', 2"});
  EXPECT_THAT(database_.childSyncStatus("/d/", MANY), Optional(IsEmpty()));
  EXPECT_EQ(openDescriptors(file()), 0U);
}

TEST_P(ChildStatusesOfAFile, AreNotKnownWhileItIsLockedWhichIsCounted) {
  store({"'/d/x', 2"});
  const LogRecorder log;
  const auto before = SyncDB::lockedQueriesOfThisThread();
  {
    Database writer(file());
    writer.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(database_.childSyncStatus("/d/", MANY), std::nullopt);
  }
  EXPECT_EQ(SyncDB::lockedQueriesOfThisThread(), before + 1);
  EXPECT_THAT(database_.childSyncStatus("/d/", MANY), Optional(SizeIs(1)));
  EXPECT_EQ(SyncDB::lockedQueriesOfThisThread(), before + 1);
  EXPECT_FALSE(database_.isLocked());
}

INSTANTIATE_TEST_SUITE_P(Indexed, ChildStatusesOfAFile,
                         ::testing::Values("CREATE TABLE ea (path TEXT PRIMARY KEY, status INTEGER)"));

}  // namespace
}  // namespace vornet::test
