#include "PathURL.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

TEST(PathURLTest, makesPathsAbsoluteByTheirLetters) {
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

TEST(PathURLTest, encodesEveryByteThatAURLCannotHold) {
  EXPECT_EQ(urlOfPath("/home/ann/a b"), "file:///home/ann/a%20b");
  EXPECT_EQ(urlOfPath("/a%20#?\n"), "file:///a%2520%23%3F%0A");
  EXPECT_EQ(urlOfPath("/é"), "file:///%C3%A9");
  EXPECT_EQ(urlOfPath("/\xFF"), "file:///%FF");
}

TEST(PathURLTest, comesBackFromTheURLUnchanged) {
  std::string all = "/";
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') {
      all.push_back(static_cast<char>(byte));
    }
  }
  EXPECT_EQ(pathOfURL(urlOfPath(all)), all);
}

TEST(PathURLTest, takesAFolderURLWithOrWithoutTheLastSlash) {
  EXPECT_EQ(pathOfURL("file:///a/b/"), "/a/b");
  EXPECT_EQ(pathOfURL("file:///"), "/");
  EXPECT_EQ(pathOfURL("file://localhost/a"), "/a");
}

TEST(PathURLTest, knowsNoPathForOtherURLs) {
  EXPECT_EQ(pathOfURL("http://example.org/a"), std::nullopt);
  EXPECT_EQ(pathOfURL("file://elsewhere/a"), std::nullopt);
  EXPECT_EQ(pathOfURL("file:///a%00b"), std::nullopt);
  EXPECT_EQ(pathOfURL(""), std::nullopt);
}

TEST(PathURLTest, tellsADirectEntryFromADeeperOne) {
  EXPECT_EQ(nameInFolder("/a/b", "/a"), "b");
  EXPECT_EQ(nameInFolder("/b", "/"), "b");
  EXPECT_EQ(nameInFolder("/a/b/c", "/a"), std::nullopt);
  EXPECT_EQ(nameInFolder("/ab", "/a"), std::nullopt);
  EXPECT_EQ(nameInFolder("/a", "/a"), std::nullopt);
  EXPECT_EQ(childPath("/", "b"), "/b");
  EXPECT_EQ(childPath("/a", "b"), "/a/b");
}

}  // namespace
}  // namespace vornet::vi
