#include "kelvane-sim/MenuRules.hpp"

#include <gtest/gtest.h>

namespace vornet::sim {
namespace {

using Items = std::vector<std::optional<FolderModel::Item>>;
using Enabled = std::array<bool, 5>;

constexpr FolderModel::Item FILE_SYNCED{false, CODE_SYNCED};
constexpr FolderModel::Item FILE_PENDING{false, CODE_PENDING};
constexpr FolderModel::Item FILE_NOT_SYNCED{false, CODE_NOT_SYNCED};
constexpr FolderModel::Item FOLDER_SYNCED{true, CODE_SYNCED};

TEST(MenuRules, ASyncedFileHasEveryAction) {
  EXPECT_EQ(enabledActions(Items{FILE_SYNCED}), (Enabled{true, true, true, true, true}));
}

TEST(MenuRules, PendingFilesAndFoldersHaveNoVersions) {
  EXPECT_EQ(enabledActions(Items{FILE_PENDING}), (Enabled{true, true, true, true, false}));
  EXPECT_EQ(enabledActions(Items{FOLDER_SYNCED}), (Enabled{true, true, true, true, false}));
}

TEST(MenuRules, SeveralItemsCanBeSharedAndViewed) {
  EXPECT_EQ(enabledActions(Items{FILE_SYNCED, FOLDER_SYNCED}), (Enabled{true, false, true, false, false}));
}

TEST(MenuRules, OneItemThatIsNotInTheCloudDisablesAll) {
  EXPECT_EQ(enabledActions(Items{}), Enabled{});
  EXPECT_EQ(enabledActions(Items{FILE_SYNCED, FILE_NOT_SYNCED}), Enabled{});
  EXPECT_EQ(enabledActions(Items{FILE_SYNCED, std::nullopt}), Enabled{});
  EXPECT_EQ(enabledActions(Items{FolderModel::Item{false, 7}}), Enabled{});
}

TEST(MenuRules, OnlyTheFiveIdentifiersNameAnAction) {
  EXPECT_EQ(menuActionWithUid("2")->name, "Copy Link");
  for (const char* uid : {"", "0", "6", "12", " 2"}) EXPECT_FALSE(menuActionWithUid(uid)) << uid;
}

}  // namespace
}  // namespace vornet::sim
