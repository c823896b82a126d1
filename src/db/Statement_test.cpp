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

TEST_F(StatementTest, IsPreparedWhenItsTextIsRightUpToTheGivenLength) {
  EXPECT_TRUE(Statement(db_, "SELECT 1").prepared());
  EXPECT_TRUE(Statement(db_, std::string_view("SELECT 1 nonsense, nonsense").substr(0, 8)).prepared());
  EXPECT_FALSE(Statement(db_, "SELECT FROM WHERE").prepared());
  EXPECT_FALSE(Statement(db_, "SELECT path FROM absent").prepared());
}

TEST_F(StatementTest, FinalisingTwiceIsHarmless) {
  Statement statement(db_, "SELECT 1");
  statement.finalise();
  statement.finalise();
}

TEST_F(StatementTest, StepsThroughItsRows) {
  Statement statement(db_, "SELECT 'a', 5 UNION ALL SELECT 'b', -6");
  for (const auto& [text, integer] : {std::pair("a", 5), std::pair("b", -6)}) {
    ASSERT_TRUE(statement.stepToRow());
    EXPECT_EQ(statement.text(0), text);
    EXPECT_EQ(statement.integer(1), integer);
  }
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

TEST_F(StatementTest, AnEmptyTextIsATextButNullAndBytesThatAreNotUTF8AreNone) {
  Statement statement(db_, "SELECT '', NULL, CAST(X'61FF' AS TEXT), CAST(X'EDA080' AS TEXT)");
  ASSERT_TRUE(statement.stepToRow());
  EXPECT_EQ(statement.text(0), "");
  for (const int column : {1, 2, 3}) EXPECT_EQ(statement.text(column), std::nullopt) << column;
}

TEST_F(StatementTest, IntegersAreReadWith32Bits) {
  Statement statement(db_, "SELECT 4294967298, -1, NULL, '2', 'text', 1.9");
  ASSERT_TRUE(statement.stepToRow());
  int column = 0;
  for (const int expected : {2, -1, 0, 2, 0, 1}) EXPECT_EQ(statement.integer(column++), expected) << column;
}

using StatementDeathTest = ProcessStops;

TEST_F(StatementDeathTest, ATextOrABoundTextWhoseLengthDoesNotFitAnIntStopsTheProcess) {
  // Only the length is looked at: no such text is made.
  const std::string_view endless("SELECT 1", std::size_t{1} << 31);
  EXPECT_DEATH(Statement(nullptr, endless), "too long");
  EXPECT_DEATH(Statement(nullptr, "").bind(1, endless), "too long");
}

}  // namespace
}  // namespace vornet::test
