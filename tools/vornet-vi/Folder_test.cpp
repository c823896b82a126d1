#include "Folder.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

TEST(FolderTest, MakesPathsAbsoluteWithoutFollowingLinks) {
  EXPECT_EQ(absolutePath("a", "/home/ann"), "/home/ann/a");
  EXPECT_EQ(absolutePath(".", "/home/ann"), "/home/ann");
  EXPECT_EQ(absolutePath("../b/./c", "/home/ann"), "/home/b/c");
  EXPECT_EQ(absolutePath("/x//y///", "/home/ann"), "/x/y");
  EXPECT_EQ(absolutePath("//x/y", "/home/ann"), "/x/y");
  EXPECT_EQ(absolutePath("../../../..", "/home/ann"), "/");
  EXPECT_EQ(absolutePath("/", "/home/ann"), "/");
  EXPECT_EQ(absolutePath("a", "/"), "/a");
  EXPECT_EQ(absolutePath("...", "/"), "/...");
}

}  // namespace
}  // namespace vornet::vi
