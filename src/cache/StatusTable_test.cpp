#include "cache/StatusTable.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/Entries.hpp"

namespace vornet::test {
namespace {

using ::testing::Pair;
using ::testing::UnorderedElementsAre;

TEST(StatusTableTest, isEmptyAtFirst) {
  const StatusTable table;
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(table.find("/a"), std::nullopt);
  EXPECT_EQ(table.begin(), table.end());
}

TEST(StatusTableTest, findsExactlyThePathsThatWereSet) {
  StatusTable table;
  table.set("/a/b", 2);
  EXPECT_EQ(table.find("/a/b"), 2);
  for (const char* other : {"/a/b/", "/a/B", "/a/", "/a", "a/b", "", "/a/b "})
    EXPECT_EQ(table.find(other), std::nullopt) << other;
}

TEST(StatusTableTest, settingAPathAgainReplacesItsCode) {
  StatusTable table;
  table.set("/a", 1);
  table.set("/a", 2);
  EXPECT_EQ(table.find("/a"), 2);
  EXPECT_EQ(table.size(), 1U);
}

TEST(StatusTableTest, ofEqualEntriesInAListTheLastHolds) {
  const StatusTable table = {{"/a", 1}, {"/b", 0}, {"/a", 2}};
  EXPECT_THAT(entriesOf(table), UnorderedElementsAre(Pair("/a", 2), Pair("/b", 0)));
}

TEST(StatusTableTest, everyCodeIsKept) {
  const StatusTable table = {
      {"/a", -1}, {"/b", std::numeric_limits<StatusCode>::min()}, {"/c", std::numeric_limits<StatusCode>::max()}};
  EXPECT_EQ(table.find("/a"), -1);
  EXPECT_EQ(table.find("/b"), std::numeric_limits<StatusCode>::min());
  EXPECT_EQ(table.find("/c"), std::numeric_limits<StatusCode>::max());
}

TEST(StatusTableTest, theEmptyPathIsAPath) {
  StatusTable table;
  table.set("", 1);
  EXPECT_EQ(table.find(""), 1);
  EXPECT_EQ(table.find({}), 1);
  EXPECT_EQ(table.size(), 1U);
  table.set("", 2);
  EXPECT_EQ(table.find(""), 2);
  EXPECT_EQ(table.size(), 1U);
}

TEST(StatusTableTest, pathsMayHoldAnyBytes) {
  const std::string_view zero("/a\0b", 4);
  StatusTable table;
  table.set(zero, 1);
  table.set("/\xFF", 2);
  EXPECT_EQ(table.find(zero), 1);
  EXPECT_EQ(table.find("/a"), std::nullopt);
  EXPECT_EQ(table.find("/\xFF"), 2);
}

TEST(StatusTableTest, copiesThePathsItIsGiven) {
  StatusTable table;
  std::string path = "/a path that is longer than a short text";
  table.set(path, 2);
  path.assign(path.size(), 'x');
  EXPECT_EQ(table.find("/a path that is longer than a short text"), 2);
  EXPECT_EQ(table.find(path), std::nullopt);
}

TEST(StatusTableTest, holdsManyEntriesAndOneVeryLongPath) {
  StatusTable table;
  std::map<std::string, StatusCode> expected;
  for (int i = 0; i < 50'000; ++i) expected["/folder/item " + std::to_string(i)] = i % 4 - 1;
  expected["/" + std::string(1'000'000, 'x')] = 2;
  for (const auto& [path, code] : expected) table.set(path, code);
  EXPECT_EQ(table.size(), expected.size());
  for (const auto& [path, code] : expected) ASSERT_EQ(table.find(path), code) << path.substr(0, 100);
  for (const auto& [path, code] : table) ASSERT_EQ(expected.at(std::string(path)), code);
}

TEST(StatusTableTest, entriesStayWhileTheTableGrowsAndMoves) {
  StatusTable table;
  std::map<std::string, StatusCode> expected;
  for (int i = 0; i < 20'000; ++i) {
    const std::string path = "/item " + std::to_string(i) + std::string(i % 300, 'x');  // lengths of one and two groups
    table.set(path, i - 10'000);
    expected[path] = i - 10'000;
    if (i % 1000 == 0) table = StatusTable(std::move(table));
  }
  EXPECT_EQ(entriesOf(table), expected);
}

TEST(StatusTableTest, everyCodeIsKeptAsItIs) {
  StatusTable table;
  std::map<std::string, StatusCode> expected;
  const auto keep = [&](StatusCode code) {
    table.set("/" + std::to_string(code), code);
    expected["/" + std::to_string(code)] = code;
  };
  for (int bit = 0; bit < 63; ++bit) {
    for (const StatusCode around : {-1, 0, 1}) {
      keep((StatusCode{1} << bit) + around);
      keep(-(StatusCode{1} << bit) + around);
    }
  }
  keep(std::numeric_limits<StatusCode>::min());
  keep(std::numeric_limits<StatusCode>::max());
  EXPECT_EQ(entriesOf(table), expected);
}

TEST(StatusTableTest, viewsOfPathsStayValidWhenTheTableIsMoved) {
  StatusTable table = {{"/first", 1}};
  const std::string_view view = table.begin()->first;
  const StatusTable moved = std::move(table);
  EXPECT_EQ(moved.begin()->first.data(), view.data());
  EXPECT_EQ(view, "/first");
}

TEST(StatusTableTest, aMovedTableIsEmptyAndCanBeUsedAgain) {
  StatusTable table = {{"/a", 1}, {"/b", 2}};
  const StatusTable moved = std::move(table);
  EXPECT_THAT(entriesOf(moved), UnorderedElementsAre(Pair("/a", 1), Pair("/b", 2)));
  EXPECT_TRUE(table.empty());                 // NOLINT: that is the question
  EXPECT_EQ(table.find("/a"), std::nullopt);  // NOLINT
  table.set("/c", 0);
  EXPECT_THAT(entriesOf(table), UnorderedElementsAre(Pair("/c", 0)));
  EXPECT_EQ(moved.find("/c"), std::nullopt);
}

TEST(StatusTableTest, aMoveReplacesWhatTheTargetHeld) {
  StatusTable target = {{"/old", 1}};
  StatusTable source = {{"/new", 2}};
  target = std::move(source);
  EXPECT_THAT(entriesOf(target), UnorderedElementsAre(Pair("/new", 2)));
  EXPECT_TRUE(source.empty());  // NOLINT
  source = {{"/again", 0}};
  EXPECT_THAT(entriesOf(source), UnorderedElementsAre(Pair("/again", 0)));
  EXPECT_THAT(entriesOf(target), UnorderedElementsAre(Pair("/new", 2)));
}

TEST(StatusTableTest, tablesAreEqualWhenTheirEntriesAre) {
  const StatusTable table = {{"/a", 1}, {"/b", 2}};
  StatusTable other;
  other.reserve(1000);
  other.set("/b", 2);
  EXPECT_FALSE(table == other);
  other.set("/a", 1);
  EXPECT_TRUE(table == other);
  other.set("/a", 2);
  EXPECT_FALSE(table == other);
  EXPECT_TRUE(StatusTable() == StatusTable());
}

TEST(StatusTableTest, reservingChangesNoEntry) {
  StatusTable table = {{"/a", 1}};
  table.reserve(100'000);
  EXPECT_THAT(entriesOf(table), UnorderedElementsAre(Pair("/a", 1)));
}

}  // namespace
}  // namespace vornet::test
