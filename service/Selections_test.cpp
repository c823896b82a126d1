#include "Selections.hpp"

#include <gtest/gtest.h>

namespace vornet::service {
namespace {

using platform::FileURL;

const std::set<FileURL> ROOTS = {FileURL::fileURLWithPath("/R"), FileURL::fileURLWithPath("/other/root")};

TEST(ReadURL, TakesFileURLsAndRefusesEverythingElse) {
  EXPECT_EQ(*readURL("file:///a/b%20c")->path(), "/a/b c");
  EXPECT_EQ(*readURL("file:///a/")->path(), "/a");
  for (const char* text : {"", "/a", "http://127.0.0.1/a", "file://other/a", "file:///a%", "file:///a%0",
                           "file:///a%zz", "file:///a%00b", "file:///a?b", "file:///a#b"}) {
    EXPECT_FALSE(readURL(text)) << text;
  }
}

TEST(ReadURL, RefusesDotComponentsAlsoWhenTheyAreEscaped) {
  for (const char* text : {"file:///a/../b", "file:///a/..", "file:///./a", "file:///a/%2E%2e/b", "file:///.."})
    EXPECT_FALSE(readURL(text)) << text;
  for (const char* text : {"file:///a/..b", "file:///.a/b", "file:///a...", "file:///a/b..c"})
    EXPECT_TRUE(readURL(text)) << text;
}

TEST(ReadURL, GivesAURLWithoutPathForANameThatIsNotUTF8) {
  EXPECT_EQ(readURL("file:///a/%FF").value().path(), std::nullopt);
}

TEST(ReadURL, GivesAPathOneSpelling) {
  for (const char* text : {"file:///a/b", "file:////a/b", "file:///a//b", "file:///a///b//", "file:///a/%2F%2fb"})
    EXPECT_EQ(*readURL(text)->path(), "/a/b") << text;
  EXPECT_EQ(*readURL("file://////")->path(), "/");
  EXPECT_EQ(readURL("file:///a//b/")->description(), "file:///a/b/");
  EXPECT_FALSE(readURL("file:///a//../b"));
}

TEST(Within, ComparesWholeComponents) {
  for (const char* path : {"/R", "/R/a/b", "/other/root/x"}) EXPECT_TRUE(isWithin(ROOTS, path)) << path;
  for (const char* path : {"/Rx", "/", "/other"}) EXPECT_FALSE(isWithin(ROOTS, path)) << path;
  EXPECT_FALSE(isWithin({}, "/R"));
}

TEST(Within, APathThatHoldsTheRootsTextTwiceIsWithinNoRoot) {
  for (const char* path : {"/R/x/R", "/R/x/R/y", "/R/x/Ry", "/R/R"}) {
    EXPECT_FALSE(isWithin(ROOTS, path)) << path;
    EXPECT_FALSE(isBelow(ROOTS, path)) << path;
  }
  for (const char* path : {"/R/xR", "/R/x/r", "/R/xR/y"}) EXPECT_TRUE(isBelow(ROOTS, path)) << path;
}

TEST(Within, NoRootNorPathWhoseURLIsRefusedIsBelowARoot) {
  for (const char* path : {"/R", "/R/.", "/R/..", "/R/a/.."}) EXPECT_FALSE(isBelow(ROOTS, path)) << path;
  for (const char* path : {"/R/a", "/R/a.", "/R/..a", "/R/...", "/R/.a"}) EXPECT_TRUE(isBelow(ROOTS, path)) << path;
}

TEST(Within, TheRootOfTheFileSystemHoldsOnlyItsOwnItems) {
  const std::set<FileURL> roots = {FileURL::fileURLWithPath("/")};
  EXPECT_TRUE(isWithin(roots, "/"));
  EXPECT_TRUE(isBelow(roots, "/a"));
  EXPECT_FALSE(isBelow(roots, "/a/b")) << "which holds the root's text, a slash, twice";
  EXPECT_FALSE(isBelow(roots, "/"));
}

}  // namespace
}  // namespace vornet::service
