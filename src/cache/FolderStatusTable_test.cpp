// A table meant for a folder is, to whoever uses it, a table like any other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "cache/StatusTable.hpp"

namespace vornet {
namespace {

using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

const std::string FOLDER = "/a/b/";

std::map<std::string, StatusCode> entriesOf(const StatusTable& table) {
  std::map<std::string, StatusCode> entries;
  for (const auto& [path, code] : table) entries.emplace(path, code);
  return entries;
}

TEST(FolderStatusTable, FindsItemsUnderTheirWholePathsOnly) {
  StatusTable table(FOLDER);
  table.set("/a/b/c", 2);
  EXPECT_EQ(table.find("/a/b/c"), 2);
  EXPECT_EQ(table.find("c"), std::nullopt);
  EXPECT_EQ(table.find("/c"), std::nullopt);
  EXPECT_EQ(table.find("/a/b/"), std::nullopt);
  EXPECT_THAT(entriesOf(table), UnorderedElementsAre(Pair("/a/b/c", 2)));
}

TEST(FolderStatusTable, HoldsTheFolderItselfAndPathsElsewhere) {
  StatusTable table(FOLDER);
  const std::map<std::string, StatusCode> entries = {{"/a/b/", 0}, {"/a/b", 1}, {"/a/bc", 2}, {"c", 0},
                                                     {"", 1},      {"/", 2},    {"/x/c", 0},  {"/a/b/c", 1}};
  for (const auto& [path, code] : entries) table.set(path, code);
  for (const auto& [path, code] : entries) EXPECT_EQ(table.find(path), code) << path;
  EXPECT_EQ(table.size(), entries.size());
  EXPECT_EQ(entriesOf(table), entries);
}

TEST(FolderStatusTable, KeepsANameApartFromAPathElsewhereWithTheSameBytes) {
  const std::string nul(1, '\0');
  StatusTable table(FOLDER);
  const std::map<std::string, StatusCode> entries = {
      {"c", 0}, {"/a/b/c", 1}, {nul + "c", 2}, {FOLDER + nul + "c", 0}, {FOLDER + nul + "/a/b/c", 1}, {nul, 2}};
  for (const auto& [path, code] : entries) table.set(path, code);
  for (const auto& [path, code] : entries) EXPECT_EQ(table.find(path), code);
  EXPECT_EQ(entriesOf(table), entries);
}

TEST(FolderStatusTable, TheLastCodeOfAPathHolds) {
  StatusTable table(FOLDER);
  for (const auto* path : {"/a/b/c", "/x"}) {
    table.set(path, 1);
    table.set(path, 2);
    EXPECT_EQ(table.find(path), 2);
  }
  EXPECT_EQ(table.size(), 2U);
}

TEST(FolderStatusTable, EqualsATableOfTheSameEntriesHoweverTheyAreKept) {
  StatusTable table(FOLDER);
  table.set("/a/b/c", 2);
  table.set("/x", 1);
  EXPECT_EQ(table, (StatusTable{{"/a/b/c", 2}, {"/x", 1}}));
  EXPECT_EQ((StatusTable{{"/a/b/c", 2}, {"/x", 1}}), table);
  EXPECT_FALSE(table == (StatusTable{{"/a/b/c", 2}, {"/x", 0}}));
  EXPECT_FALSE(table == (StatusTable{{"c", 2}, {"/x", 1}}));
  EXPECT_FALSE(table == StatusTable(FOLDER));
}

TEST(FolderStatusTable, CanBeMovedAndReplaced) {
  StatusTable table(FOLDER);
  table.reserve(10, 100);
  table.set("/a/b/c", 2);
  StatusTable moved = std::move(table);
  EXPECT_THAT(entriesOf(moved), UnorderedElementsAre(Pair("/a/b/c", 2)));
  moved = StatusTable();
  EXPECT_THAT(entriesOf(moved), IsEmpty());
  moved.set("c", 1);
  EXPECT_THAT(entriesOf(moved), UnorderedElementsAre(Pair("c", 1)));
}

}  // namespace
}  // namespace vornet
