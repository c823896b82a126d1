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
  for (const char* text : {"copylink", "", "Sha", "\xFF"}) EXPECT_FALSE(findEntry(MENU, text)) << text;
}

}  // namespace
}  // namespace vornet::vi
