// The statuses of a folder's items by one query, which equal those of the items' own queries letter by letter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "db/SyncDB.hpp"
#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"

namespace vornet::test {
namespace {

using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr std::size_t MANY = 50'000;

class ChildStatusesTest : public ::testing::Test {
 protected:
  std::filesystem::path file() const { return environment_.container() / "sync.db"; }

  /// Makes the database with the SQL `table` and with `rows`: SQL values of path and status.
  void store(const std::string& table, const std::vector<std::string>& rows) {
    Database database(file());
    database.run(table);
    database.run("BEGIN");
    for (const auto& row : rows) database.run("INSERT OR IGNORE INTO ea (path, status) VALUES (" + row + ")");
    database.run("COMMIT");
  }

  Environment environment_;
  SyncDBProbe database_;
};

class ChildStatuses : public ChildStatusesTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ChildStatuses, AreThoseOfEachItemsOwnQuery) {
  const std::vector<std::string> folders = {"/", "/d/", "/100%/", "/a_b/", "/[x]*/", "/b\\/", "/e\xcc\x81/"};
  // What is stored below each folder, by its status.
  std::vector<std::pair<std::string, std::vector<std::string>>> stored = {
      {"0", {"both/", "twice", "100%", "deep/er/x", "deep!", "CASE"}},
      {"1", {"folder/", "both the other way", "a_b", "b\\", "cafe\xcc\x81", "deep/", "deep0", " "}},
      {"2",
       {"plain", "both", "both the other way/", "twice", "[x]*/", "caf\xc3\xa9", "double//", "''quoted''",
        "\xf0\x9f\x98\x80", "d/x", "/", ""}},
      {"-1", {"-1"}},
      {"7", {"7"}},
      {"4294967298", {"big"}},
      {"'x'", {"text"}},
      {"NULL", {"null"}},
      {"2", {}}};
  for (int i = 0; i < 200; ++i) stored.back().second.push_back("deep/" + std::to_string(i));
  std::vector<std::string> rows = {"NULL, 2", "7, 2", "'', 2", "'plain', 2", "X'2F642F70', 2", "'elsewhere', 1"};
  rows.push_back("CAST(X'2F642F6E756C0078' AS TEXT), 2");  // "/d/nul", a NUL, "x"
  rows.push_back("CAST(X'2F642F6FFF' AS TEXT), 2");        // no UTF-8
  std::set<std::string> names = {"'quoted'", "none", "aXb", "case", "number", "nul", "x", "y", "0"};
  for (const auto& folder : folders) {
    for (const auto& [status, items] : stored) {
      for (const auto& item : items) {
        rows.push_back("'" + folder + item + "', " + status);
        names.insert(item.substr(0, item.find('/')));
      }
    }
    rows.push_back("CAST('" + folder + "blob' AS BLOB), 2");
  }
  names.erase("");  // the folder itself
  store(GetParam(), rows);
  for (const auto& folder : folders) {
    const auto found = database_.childSyncStatus(folder, MANY);
    ASSERT_TRUE(found) << folder;
    for (const auto& [name, status] : *found) names.insert(name);
    std::size_t matched = 0;
    for (const auto& name : names) {
      const auto row = found->find(name);
      EXPECT_EQ(row == found->end() ? -1 : row->second, database_.pathSyncStatus(folder + name)) << folder << name;
      matched += row != found->end();
    }
    EXPECT_GE(matched, 20U) << folder;
  }
}

TEST_P(ChildStatuses, SkipNoItemInAnyOrder) {
  std::vector<std::string> rows = {"'/d/a', 2"};  // behind the others where they are in the order of their statuses
  for (int i = 0; i < 100; ++i) rows.push_back("'/d/deep/" + std::to_string(i) + "', 1");
  rows.push_back("'/d/deep\xc4\xaf', 1");  // whose bytes in UTF-16 may be between those of "deep/" and "deep0"
  store(GetParam(), rows);
  const auto found = database_.childSyncStatus("/d/", MANY);
  EXPECT_THAT(found, Optional(UnorderedElementsAre(Pair("a", 2), Pair("deep\xc4\xaf", 1))));
}

TEST_P(ChildStatuses, EndBeyondTheMostThatAreWanted) {
  std::vector<std::string> rows;
  for (int i = 0; i < 100; ++i) rows.push_back("'/d/" + std::to_string(i) + "', 2");
  store(GetParam(), rows);
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

TEST_F(ChildStatusesTest, AreNoneAtAllWherePathsAreNotComparedByteByByte) {
  for (const std::string path : {"path TEXT COLLATE NOCASE", "path TEXT COLLATE RTRIM PRIMARY KEY"}) {
    std::filesystem::remove(file());
    store("CREATE TABLE ea (" + path + ", status INTEGER)", {"'/d/x', 2"});
    EXPECT_EQ(database_.childSyncStatus("/d/", MANY), std::nullopt) << path;
    EXPECT_EQ(database_.db(), nullptr) << path;
  }
}

TEST_F(ChildStatusesTest, AreEmptyWhereEveryItemsAnswerIsThatItHasNoRow) {
  for (const std::string content :
       {"", "CREATE TABLE other (path TEXT)", "CREATE TABLE ea (path TEXT)",
        "CREATE TABLE ea (path TEXT PRIMARY KEY, status INTEGER); INSERT INTO ea VALUES ('/e/x', 2)"}) {
    if (!content.empty()) Database(file()).run(content);
    SyncDB database;
    EXPECT_THAT(database.childSyncStatus("/d/", MANY), Optional(IsEmpty())) << content;
    EXPECT_EQ(SyncDB().pathSyncStatus("/d/x"), -1) << content;
    EXPECT_EQ(openDescriptors(file()), 0U) << content;
    std::filesystem::remove(file());
  }
}

}  // namespace
}  // namespace vornet::test
