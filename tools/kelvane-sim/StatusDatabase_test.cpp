#include "kelvane-sim/StatusDatabase.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kelvane-sim/TestFolder.hpp"

namespace vornet::sim {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using testing::rowsOf;
using testing::TestFolder;

class StatusDatabaseTest : public ::testing::Test {
 protected:
  TestFolder folder_;
  const std::string path_ = folder_.path("/sync.db");
};

TEST_F(StatusDatabaseTest, HoldsExactlyTheRowsGiven) {
  StatusDatabase database(path_);
  database.replaceAll({{"/", 1}, {"/old", 2}, {"/kept", 2}});
  database.replaceAll({{"/", 2}, {"/kept", 2}, {"/new/", 0}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/", 2), Pair("/kept", 2), Pair("/new/", 0)));
}

TEST_F(StatusDatabaseTest, ChangesAddReplaceAndDelete) {
  StatusDatabase database(path_);
  database.apply({{"/a", 1}, {"/b", 1}});
  database.apply({{"/a", 2}, {"/b", std::nullopt}, {"/c", 0}, {"/never", std::nullopt}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/a", 2), Pair("/c", 0)));
}

TEST_F(StatusDatabaseTest, PathsAreKeptAsBytes) {
  StatusDatabase database(path_);
  database.apply({{"/\xC3\xA9", 1}, {"/e\xCC\x81", 2}, {"/it's \"x\"%_", 0}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/e\xCC\x81", 2), Pair("/it's \"x\"%_", 0), Pair("/\xC3\xA9", 1)));
}

TEST_F(StatusDatabaseTest, ManyRowsFillSeveralTransactions) {
  constexpr int COUNT = static_cast<int>(StatusDatabase::BATCH_ROWS) * 2 + 1;
  std::vector<FolderModel::Change> rows;
  for (int i = 0; i < COUNT; ++i) rows.push_back({std::string("/").append(std::to_string(i)), i % 3});
  StatusDatabase(path_).replaceAll(rows);
  const auto stored = rowsOf(path_);
  ASSERT_EQ(stored.size(), rows.size());
  for (const auto& row : rows) EXPECT_EQ(stored.at(row.path), *row.code);
}

TEST_F(StatusDatabaseTest, AFileThatIsNoDatabaseIsReplaced) {
  folder_.write("/sync.db", "this is no database, although it is long enough to be looked at twice, or thrice");
  StatusDatabase database(path_);
  database.apply({{"/a", 1}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/a", 1)));
}

TEST_F(StatusDatabaseTest, AnotherTableOfThatNameIsReplaced) {
  SqliteFile(path_).execute("CREATE TABLE ea (something TEXT)");
  StatusDatabase database(path_);
  database.apply({{"/a", 1}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/a", 1)));
}

TEST_F(StatusDatabaseTest, KeepsARollbackJournalAndAnIndexOnThePath) {
  StatusDatabase database(path_);
  SqliteFile file(path_);
  auto mode = file.prepare("PRAGMA journal_mode");
  ASSERT_TRUE(mode.step());
  EXPECT_EQ(mode.text(0), "delete");
  auto plan = file.prepare("EXPLAIN QUERY PLAN SELECT status FROM ea WHERE path = '/a'");
  ASSERT_TRUE(plan.step());
  EXPECT_NE(plan.text(3).find("USING INDEX"), std::string::npos) << plan.text(3);
}

TEST_F(StatusDatabaseTest, AWriteHeldUpByAReaderCanBeDoneAgain) {
  StatusDatabase database(path_);
  database.apply({{"/a", 1}});
  {
    SqliteFile reader(path_);
    reader.execute("BEGIN");
    auto query = reader.prepare("SELECT * FROM ea");
    ASSERT_TRUE(query.step());
    EXPECT_THROW(database.apply({{"/a", 2}}), SqliteError);
  }
  database.apply({{"/a", 2}});
  EXPECT_THAT(rowsOf(path_), ElementsAre(Pair("/a", 2)));
}

}  // namespace
}  // namespace vornet::sim
