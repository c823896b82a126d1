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

TEST(PluginPaths, AURLBringsItsPathBack) {
  for (const std::string path :
       {"/a b", "/a:b", "/100%", "/#?&", "/line\nbreak", "/caf\xe9", "/\xc3\xa9", "/e\xcc\x81"}) {
    EXPECT_EQ(pathOfURL(urlOfPath(path).c_str()), path);
  }
}

TEST(PluginPaths, FolderAndName) {
  EXPECT_EQ(folderOf("/a/b"), "/a");
  EXPECT_EQ(nameOf("/a/b"), "b");
  EXPECT_EQ(folderOf("/a"), "/");
  EXPECT_EQ(folderOf("/"), "/");
  EXPECT_EQ(nameOf("/"), "");
  EXPECT_EQ(withoutSlash("/a//"), "/a");
  EXPECT_EQ(withoutSlash("/"), "/");
}

TEST(PluginPaths, WithinIsTheFolderItselfAndWhatLiesBelow) {
  EXPECT_TRUE(isWithin("/a", "/a"));
  EXPECT_TRUE(isWithin("/a", "/a/b/c"));
  EXPECT_TRUE(isWithin("/", "/a"));
  EXPECT_FALSE(isWithin("/a", "/ab"));
  EXPECT_FALSE(isWithin("/a/b", "/a"));
  EXPECT_FALSE(isWithin("/", ""));
}

}  // namespace
}  // namespace vornet::client
