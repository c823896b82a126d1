#include "base/MenuEntries.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace vornet {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::FieldsAre;

/// The identifiers of the entries that take `items` selected items.
std::string taking(std::size_t items) {
  std::string identifiers;
  for (const auto& entry : MENU_ENTRIES)
    if (entry.takes(items)) identifiers += entry.identifier;
  return identifiers;
}

TEST(MenuEntriesTest, AreFiveFromTopToBottom) {
  EXPECT_THAT(MENU_ENTRIES,
              ElementsAre(FieldsAre("Share", "share:", "1", _), FieldsAre("Copy Link", "copyLink:", "2", _),
                          FieldsAre("Comments", "notes:", "4", _), FieldsAre("View versions", "viewVersions:", "5", _),
                          FieldsAre("View in Cloud", "viewInCloud:", "3", _)));
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
