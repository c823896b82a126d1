#include "Commands.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

const std::vector<MenuEntry> MENU{{"Share", "share:", true, "QMT"}, {"Copy Link", "copyLink:", false, "QMT"}};

TEST(FindEntryTest, FindsByTitleWhateverTheCase) {
  ASSERT_TRUE(findEntry(MENU, "copy LINK"));
  EXPECT_EQ(findEntry(MENU, "copy LINK")->action, "copyLink:");
}

TEST(FindEntryTest, FindsByActionWithOrWithoutColon) {
  ASSERT_TRUE(findEntry(MENU, "copyLink:"));
  ASSERT_TRUE(findEntry(MENU, "copyLink"));
  EXPECT_EQ(findEntry(MENU, "copyLink")->title, "Copy Link");
}

TEST(FindEntryTest, FindsNothingElse) {
  EXPECT_FALSE(findEntry(MENU, "copylink"));
  EXPECT_FALSE(findEntry(MENU, ""));
  EXPECT_FALSE(findEntry(MENU, "Sha"));
  EXPECT_FALSE(findEntry(MENU, "\xFF"));
}

}  // namespace
}  // namespace vornet::vi
