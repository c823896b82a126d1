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

TEST(FolderStatusTable, SelectionsShareTheirEntriesUntilOneIsChanged) {
  std::optional<StatusTable> table("/a/");
  constexpr int COUNT = 10'000;
  for (int i = 0; i < COUNT; ++i) table->set("/a/" + std::to_string(i), i % 3);
  table->set("/elsewhere", 2);
  StatusTable some = table->selection();
  EXPECT_TRUE(some.empty());
  for (auto entry = table->begin(); entry != table->end(); ++entry)
    if (entry.code() == 2) some.add(entry);
  EXPECT_EQ(some.size(), 3334u);
  EXPECT_EQ(some.find("/a/2"), 2);
  EXPECT_EQ(some.find("/elsewhere"), 2);
  EXPECT_EQ(some.find("/a/1"), std::nullopt);

  const auto memory = some.memory();
  for (int i = 0; i < COUNT; ++i) table->set("/a/" + std::to_string(i), i % 3);  // which takes room
  EXPECT_EQ(some.memory(), memory) << "its entries are not written to";
  table->set("/a/2", 0);
  table->set("/a/new", 2);
  EXPECT_EQ(table->find("/a/2"), 0);
  EXPECT_EQ(some.find("/a/2"), 2) << "changed after it was selected";
  EXPECT_EQ(some.find("/a/new"), std::nullopt);
  EXPECT_EQ(table->size(), COUNT + 2u);
  some.set("/a/mine", 1);
  EXPECT_EQ(table->find("/a/mine"), std::nullopt);
  table.reset();
  EXPECT_EQ(some.find("/a/5"), 2);
  EXPECT_EQ(some.find("/a/mine"), 1);
  EXPECT_EQ(some.size(), 3335u);
}

TEST(FolderStatusTable, ASelectionOfAllEntriesCostsNoNames) {
  StatusTable table("/a/");
  constexpr std::size_t COUNT = 1'000;
  const std::string name(1'000, 'x');
  for (std::size_t i = 0; i < COUNT; ++i) table.set("/a/" + name + std::to_string(i), 1);
  StatusTable all = table.selection();
  for (auto entry = table.begin(); entry != table.end(); ++entry) all.add(entry);
  EXPECT_EQ(all, table);
  EXPECT_GE(table.memory(), COUNT * name.size());
  // Both hold the same bytes: what the selection counts beside them is its places.
  EXPECT_EQ((*all.begin()).second, 1);
  EXPECT_LE(all.memory(), table.memory());
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
