#include "cache/StatusTable.hpp"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <utility>

#include "support/Entries.hpp"

namespace vornet::test {
namespace {

using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr auto LOWEST = std::numeric_limits<StatusCode>::min();
constexpr auto HIGHEST = std::numeric_limits<StatusCode>::max();

/// A table meant for no folder, or for one: to its users they are alike.
class StatusTableTest : public ::testing::TestWithParam<const char*> {
 protected:
  StatusTable table_{std::string(GetParam())};

  void set(const Entries& entries) {
    for (const auto& [path, code] : entries) table_.set(path, code);
  }

  /// Checks that the table holds exactly `entries`, and finds each.
  void expectEntries(const Entries& entries) const {
    EXPECT_EQ(table_.size(), entries.size());
    EXPECT_EQ(entriesOf(table_), entries);
    for (const auto& [path, code] : entries) ASSERT_EQ(table_.find(path), code) << path.substr(0, 100);
  }

  void setAndExpect(const Entries& entries) {
    set(entries);
    expectEntries(entries);
  }
};

INSTANTIATE_TEST_SUITE_P(MeantFor, StatusTableTest, ::testing::Values("", "/a/b/", "/folder/"), [](const auto& folder) {
  return std::string(*folder.param ? folder.index == 1 ? "AFolder" : "AnotherFolder" : "NoFolder");
});

TEST_P(StatusTableTest, IsEmptyAtFirst) {
  EXPECT_TRUE(table_.empty());
  EXPECT_EQ(table_.find("/a"), std::nullopt);
  EXPECT_EQ(table_.begin(), table_.end());
  expectEntries({});
}

TEST_P(StatusTableTest, FindsExactlyThePathsThatWereSet) {
  setAndExpect({{"/a/b/c", 2}});
  for (const char* other : {"/a/b/c/", "/a/b/C", "/a/b/", "/a/b", "a/b/c", "c", "/c", "", "/a/b/c "})
    EXPECT_EQ(table_.find(other), std::nullopt) << other;
}

TEST_P(StatusTableTest, HoldsTheFolderItselfAndPathsElsewhere) {
  setAndExpect({{"/a/b/", 0}, {"/a/b", 1}, {"/a/bc", 2}, {"c", 0}, {"", 1}, {"/", 2}, {"/x/c", 0}, {"/a/b/c", 1}});
}

TEST_P(StatusTableTest, KeepsPathsOfAnyBytesApart) {
  const std::string nul(1, '\0');
  setAndExpect({{"c", 0},
                {"/a/b/c", 1},
                {nul + "c", 2},
                {"/a/b/" + nul + "c", 0},
                {"/a/b/" + nul + "/a/b/c", 1},
                {nul, 2},
                {"/a" + nul + "b", 1},
                {"/\xFF", 2}});
  EXPECT_EQ(table_.find("/a"), std::nullopt);
}

TEST_P(StatusTableTest, TheLastCodeOfAPathWins) {
  for (const StatusCode code : {1, 2})
    for (const char* path : {"", "/a/b/c", "/x"}) table_.set(path, code);
  expectEntries({{"", 2}, {"/a/b/c", 2}, {"/x", 2}});
  EXPECT_EQ(table_.find({}), 2);
  EXPECT_THAT(entriesOf({{"/a", 1}, {"/b", 0}, {"/a", 2}}), UnorderedElementsAre(Pair("/a", 2), Pair("/b", 0)));
}

TEST_P(StatusTableTest, CopiesThePathsItIsGiven) {
  std::string path = "/a/b/a path that is longer than a short text";
  table_.set(path, 2);
  path.assign(path.size(), 'x');
  expectEntries({{"/a/b/a path that is longer than a short text", 2}});
}

TEST_P(StatusTableTest, HoldsManyEntriesAndOneVeryLongPathWhileItGrowsAndMoves) {
  Entries expected = {{"/" + std::string(1'000'000, 'x'), 2}};
  set(expected);
  for (int i = 0; i < 50'000; ++i) {
    // Sizes of one and two groups.
    const std::string path = "/folder/item " + std::to_string(i) + std::string(static_cast<std::size_t>(i) % 300, 'x');
    table_.set(path, i - 25'000);
    expected[path] = i - 25'000;
    if (i % 1000 == 0) table_ = StatusTable(std::move(table_));
  }
  expectEntries(expected);
}

TEST_P(StatusTableTest, KeepsEveryCode) {
  Entries expected = {{"/lowest", LOWEST}, {"/highest", HIGHEST}};
  for (int bit = 0; bit < 63; ++bit) {
    const auto power = StatusCode{1} << bit;
    for (const StatusCode code : {power - 1, power, power + 1, -power - 1, -power, -power + 1})
      expected["/" + std::to_string(code)] = code;
  }
  setAndExpect(expected);
}

TEST(StatusTableMoveTest, ViewsOfPathsStayValid) {
  StatusTable table = {{"/first", 1}};
  const std::string_view view = table.begin()->first;
  const StatusTable moved = std::move(table);
  EXPECT_EQ(moved.begin()->first.data(), view.data());
  EXPECT_EQ(view, "/first");
}

TEST_P(StatusTableTest, AMovedTableIsEmptyAndCanBeUsedAgain) {
  set({{"/a/b/c", 1}, {"/x", 2}});
  StatusTable target = {{"/old", 1}};
  target = std::move(table_);
  EXPECT_THAT(entriesOf(target), UnorderedElementsAre(Pair("/a/b/c", 1), Pair("/x", 2)));
  expectEntries({});                           // NOLINT: that is the question
  EXPECT_EQ(table_.find("/x"), std::nullopt);  // NOLINT
  set({{"/y", 0}});
  expectEntries({{"/y", 0}});
  EXPECT_EQ(target.find("/y"), std::nullopt);
  table_ = {{"/again", 0}};
  expectEntries({{"/again", 0}});
  EXPECT_EQ(target.size(), 2U);
}

TEST_P(StatusTableTest, EqualsATableOfTheSameEntriesHoweverTheyAreKept) {
  EXPECT_TRUE(table_ == StatusTable());
  const StatusTable other = {{"/a/b/c", 2}, {"/x", 1}};
  table_.reserve(1000, 100);
  set({{"/x", 1}});
  EXPECT_FALSE(table_ == other);
  set({{"/a/b/c", 2}});
  EXPECT_EQ(table_, other);
  EXPECT_EQ(other, table_);
  EXPECT_FALSE(table_ == (StatusTable{{"c", 2}, {"/x", 1}}));
  EXPECT_FALSE(table_ == StatusTable(std::string(GetParam())));
  set({{"/x", 0}});
  EXPECT_FALSE(table_ == other);
}

TEST_P(StatusTableTest, ReservingChangesNoEntry) {
  table_.reserve(10, 100);
  set({{"/a/b/c", 1}});
  table_.reserve(100'000);
  expectEntries({{"/a/b/c", 1}});
}

TEST(StatusTableSelectionTest, SharesItsEntriesUntilOneIsChanged) {
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

TEST(StatusTableSelectionTest, OfAllEntriesCostsNoNames) {
  StatusTable table("/a/");
  const std::string name(1'000, 'x');
  for (int i = 0; i < 1'000; ++i) table.set("/a/" + name + std::to_string(i), 1);
  StatusTable all = table.selection();
  for (auto entry = table.begin(); entry != table.end(); ++entry) all.add(entry);
  EXPECT_EQ(all, table);
  EXPECT_GE(table.memory(), 1'000 * name.size());
  // Both hold the same bytes; beside them the selection counts only its places.
  EXPECT_EQ((*all.begin()).second, 1);
  EXPECT_LE(all.memory(), table.memory());
}

}  // namespace
}  // namespace vornet::test
