#include "Paths.hpp"

#include <gtest/gtest.h>

namespace vornet::client {
namespace {

TEST(PluginPaths, URLsOfLocalFilesHaveAPath) {
  EXPECT_EQ(pathOfURL("file:///home/a%20b/%25%23"), "/home/a b/%#");
  EXPECT_EQ(pathOfURL("file:///home/ann/"), "/home/ann");
  EXPECT_EQ(pathOfURL("file:///"), "/");
  EXPECT_EQ(pathOfURL("file://localhost/x"), "/x");
  EXPECT_EQ(pathOfURL("file:///caf%E9"), "/caf\xe9");
}

TEST(PluginPaths, OtherURLsHaveNone) {
  for (const char* url : {"", "trash:///x", "sftp://host/x", "/no/url", "file://other/x", "file:///a%00b",
                          "file:///a%2Fb", "recent:///1"}) {
    EXPECT_EQ(pathOfURL(url), std::nullopt) << url;
  }
  EXPECT_EQ(pathOfURL(nullptr), std::nullopt);
}

TEST(PluginPaths, EveryByteThatAURLCannotHoldIsEncoded) {
  EXPECT_EQ(urlOfPath("/home/ann/a b"), "file:///home/ann/a%20b");
  EXPECT_EQ(urlOfPath("/a%20#?\n"), "file:///a%2520%23%3F%0A");
  EXPECT_EQ(urlOfPath("/\xc3\xa9"), "file:///%C3%A9");
  EXPECT_EQ(urlOfPath("/\xff"), "file:///%FF");
}

TEST(PluginPaths, APathBecomesAURLAndTheSamePathAgain) {
  std::string all = "/e\xcc\x81";
  for (int byte = 1; byte < 256; ++byte)
    if (byte != '/') all += static_cast<char>(byte);
  EXPECT_EQ(pathOfURL(urlOfPath(all).c_str()), all);
}

TEST(PluginPaths, FolderAndName) {
  EXPECT_EQ(folderOf("/a/b"), "/a");
  EXPECT_EQ(nameOf("/a/b"), "b");
  EXPECT_EQ(folderOf("/a"), "/");
  EXPECT_EQ(folderOf("/"), "/");
  EXPECT_EQ(nameOf("/"), "");
  EXPECT_EQ(childPath("/", "b"), "/b");
  EXPECT_EQ(childPath("/a", "b"), "/a/b");
  EXPECT_EQ(withoutSlash("/a//"), "/a");
  EXPECT_EQ(withoutSlash("/"), "/");
}

TEST(PluginPaths, WithinIsTheFolderItselfAndEverythingBelow) {
  EXPECT_TRUE(isWithin("/a", "/a"));
  EXPECT_TRUE(isWithin("/a", "/a/b/c"));
  EXPECT_TRUE(isWithin("/", "/a"));
  EXPECT_FALSE(isWithin("/a", "/ab"));
  EXPECT_FALSE(isWithin("/a/b", "/a"));
  EXPECT_FALSE(isWithin("/", ""));
}

}  // namespace
}  // namespace vornet::client
