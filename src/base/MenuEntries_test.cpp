#include "base/MenuEntries.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace vornet {
namespace {

using ::testing::ElementsAre;

std::vector<std::tuple<std::string_view, std::string_view, std::string_view>> entries() {
  std::vector<std::tuple<std::string_view, std::string_view, std::string_view>> result;
  for (const auto& entry : MENU_ENTRIES) result.emplace_back(entry.title, entry.selector, entry.identifier);
  return result;
}

/// The identifiers of the entries that take `items` selected items.
std::string taking(std::size_t items) {
  std::string identifiers;
  for (const auto& entry : MENU_ENTRIES)
    if (entry.takes(items)) identifiers += entry.identifier;
  return identifiers;
}

TEST(MenuEntriesTest, AreFiveFromTopToBottom) {
  EXPECT_THAT(entries(),
              ElementsAre(std::tuple("Share", "share:", "1"), std::tuple("Copy Link", "copyLink:", "2"),
                          std::tuple("Comments", "notes:", "4"), std::tuple("View versions", "viewVersions:", "5"),
                          std::tuple("View in Cloud", "viewInCloud:", "3")));
}

TEST(MenuEntriesTest, CommentsAndVersionsTakeOneItemAndViewInCloudAnyButNone) {
  EXPECT_EQ(taking(0), "12");
  EXPECT_EQ(taking(1), "12453");
  EXPECT_EQ(taking(2), "123");
  EXPECT_EQ(taking(1000), "123");
}

TEST(MenuEntriesTest, AnEntryIsFoundByItsIdentifier) {
  for (const auto& entry : MENU_ENTRIES) EXPECT_EQ(&menuEntry(entry.identifier), &entry);
}

}  // namespace
}  // namespace vornet
