#include "db/Statement.hpp"

#include <gtest/gtest.h>

#include <string>

#include "support/ProcessStops.hpp"

namespace vornet::test {
namespace {

class StatementTest : public ::testing::Test {
 protected:
  StatementTest() { sqlite3_open(":memory:", &db_); }
  ~StatementTest() override { EXPECT_EQ(sqlite3_close(db_), SQLITE_OK); }  // busy when a statement is left

  sqlite3* db_ = nullptr;
};

TEST_F(StatementTest, IsPreparedWhenItsTextIsRight) {
  EXPECT_TRUE(Statement(db_, "SELECT 1").prepared());
}

TEST_F(StatementTest, IsNotPreparedWhenItsTextIsWrong) {
  EXPECT_FALSE(Statement(db_, "SELECT FROM WHERE").prepared());
  EXPECT_FALSE(Statement(db_, "SELECT path FROM absent").prepared());
}

TEST_F(StatementTest, TextBeyondTheGivenLengthIsNotRead) {
  EXPECT_TRUE(Statement(db_, std::string_view("SELECT 1 nonsense, nonsense").substr(0, 8)).prepared());
}

TEST_F(StatementTest, FinalisingTwiceIsHarmless) {
  Statement statement(db_, "SELECT 1");
  statement.finalise();
  statement.finalise();
}

TEST_F(StatementTest, StepsThroughItsRows) {
  Statement statement(db_, "SELECT 'a', 5 UNION ALL SELECT 'b', -6");
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), "a");
  EXPECT_EQ(statement.integer(1), 5);
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), "b");
  EXPECT_EQ(statement.integer(1), -6);
  EXPECT_FALSE(statement.stepToRow());
}

TEST_F(StatementTest, BindsTextsByTheirLength) {
  const std::string text = "\u00fcber";
  Statement statement(db_, "SELECT ?1, length(CAST(?1 AS BLOB)), ?2");
  statement.bind(1, text);
  statement.bind(2, std::string_view(text).substr(0, 2));
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), text);
  EXPECT_EQ(statement.integer(1), 5);
  EXPECT_EQ(statement.text(2), "\u00fc");
}

TEST_F(StatementTest, AnEmptyTextIsAText) {
  Statement statement(db_, "SELECT ''");
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), "");
}

TEST_F(StatementTest, NullAndBytesThatAreNotUTF8AreNoText) {
  Statement statement(db_, "SELECT NULL, CAST(X'61FF' AS TEXT), CAST(X'EDA080' AS TEXT)");
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), std::nullopt);
  EXPECT_EQ(statement.text(1), std::nullopt);
  EXPECT_EQ(statement.text(2), std::nullopt);
}

TEST_F(StatementTest, IntegersAreReadWith32Bits) {
  Statement statement(db_, "SELECT 4294967298, -1, NULL, '2', 'text', 1.9");
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.integer(0), 2);
  EXPECT_EQ(statement.integer(1), -1);
  EXPECT_EQ(statement.integer(2), 0);
  EXPECT_EQ(statement.integer(3), 2);
  EXPECT_EQ(statement.integer(4), 0);
  EXPECT_EQ(statement.integer(5), 1);
}

using StatementDeathTest = ProcessStops;

TEST_F(StatementDeathTest, ALengthThatDoesNotFitAnIntStopsTheProcess) {
  // Only the length is looked at: no such text is made.
  const std::string_view endless("SELECT 1", std::size_t{1} << 31);
  EXPECT_DEATH(Statement(nullptr, endless), "too long");
}

TEST_F(StatementDeathTest, ABoundTextWhoseLengthDoesNotFitAnIntStopsTheProcess) {
  sqlite3* db = nullptr;
  sqlite3_open(":memory:", &db);
  {
    Statement statement(db, "SELECT ?");
    EXPECT_DEATH(statement.bind(1, std::string_view("a", std::size_t{1} << 31)), "too long");
  }
  sqlite3_close(db);
}

}  // namespace
}  // namespace vornet::test
