#include "paths/Paths.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "support/ProcessStops.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;

using platform::FileURL;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

FileURL url(std::string_view path) {
  return FileURL::fileURLWithPath(path);
}

const FileURL ROOT = url("/R");

TEST(CloudPathTest, OfAnItemBeginsWithASlash) {
  EXPECT_EQ(getCloudPath(ROOT, url("/R/a/b")), "/a/b");
}

TEST(CloudPathTest, OfTheRootIsEmpty) {
  EXPECT_EQ(getCloudPath(ROOT, ROOT), "");
  EXPECT_EQ(getCloudPath(ROOT, url("/R/")), "");
}

TEST(CloudPathTest, OfAnItemOutsideTheRootIsItsPathUnchanged) {
  EXPECT_EQ(getCloudPath(ROOT, url("/other/a")), "/other/a");
}

TEST(CloudPathTest, EveryOccurrenceOfTheRootIsRemoved) {
  EXPECT_EQ(getCloudPath(ROOT, url("/R/x/R/y")), "/x/y");
}

TEST(CloudPathTest, TheRootIsRemovedInsideAPathOutsideIt) {
  EXPECT_EQ(getCloudPath(ROOT, url("/other/R/a")), "/other/a");
}

TEST(CloudPathTest, TheRootIsRemovedEvenWhereItEndsWithinAName) {
  EXPECT_EQ(getCloudPath(ROOT, url("/Rest/a")), "est/a");
}

TEST(CloudPathTest, AdjacentOccurrencesAreRemoved) {
  EXPECT_EQ(getCloudPath(ROOT, url("/R/R/R/a")), "/a");
}

TEST(CloudPathTest, WhatARemovalJoinsIsNotRemovedAgain) {
  EXPECT_EQ(getCloudPath(url("/R/R"), std::string_view("/R/R/R/R")), "");
  EXPECT_EQ(getCloudPath(url("/ab"), std::string_view("/a/abb")), "/ab");
}

TEST(CloudPathTest, CaseMatters) {
  EXPECT_EQ(getCloudPath(ROOT, url("/r/a")), "/r/a");
}

TEST(CloudPathTest, TheRootIsTakenLiterally) {
  EXPECT_EQ(getCloudPath(url("/R.*"), url("/R.*/a")), "/a");
  EXPECT_EQ(getCloudPath(url("/R.*"), url("/Rxx/a")), "/Rxx/a");
}

TEST(CloudPathTest, DifferentlyComposedCharactersAreDifferent) {
  EXPECT_EQ(getCloudPath(url("/\u00e9"), url("/e\u0301/a")), "/e\u0301/a");
  EXPECT_EQ(getCloudPath(url("/\u00e9"), url("/\u00e9/\u00fc")), "/\u00fc");
}

TEST(CloudPathTest, TrailingSlashesOfRootAndItemDoNotCount) {
  EXPECT_EQ(getCloudPath(url("/R/"), url("/R/a/")), "/a");
}

TEST(CloudPathTest, TheRootFolderOfTheSystemAsRootLosesEverySlash) {
  EXPECT_EQ(getCloudPath(url("/"), url("/a/b")), "ab");
}

TEST(CloudPathTest, OfAPathTextFollowsTheSameRule) {
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/R/a/b")), "/a/b");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/R")), "");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/R/x/R/y")), "/x/y");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/other")), "/other");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("")), "");
}

TEST(CloudPathTest, APathTextIsTakenAsItIs) {
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/R/a/")), "/a/");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("a//R/b")), "a//b");
}

class PathsOnDiskTest : public ::testing::Test {
 protected:
  PathsOnDiskTest() {
    fs::create_directory(folder_ / "d");
    writeFile(folder_.path() / "f", "text");
    fs::create_directory_symlink(folder_ / "d", folder_ / "to-d");
    fs::create_symlink(folder_ / "f", folder_ / "to-f");
    fs::create_symlink(folder_ / "gone", folder_ / "to-nothing");
  }

  FileURL root() const { return url(folder_.path().string()); }
  FileURL item(std::string_view name) const { return url(folder_ / name); }

  TemporaryFolder folder_;
};

TEST_F(PathsOnDiskTest, ASlashFollowsTheCloudPathOfAFolder) {
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("d")), "/d/");
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("to-d")), "/to-d/");
}

TEST_F(PathsOnDiskTest, NothingFollowsTheCloudPathOfAFile) {
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("f")), "/f");
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("to-f")), "/to-f");
}

TEST_F(PathsOnDiskTest, NothingFollowsTheCloudPathOfAnAbsentItem) {
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("gone")), "/gone");
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item("to-nothing")), "/to-nothing");
}

TEST_F(PathsOnDiskTest, TheRootWithTrailingSlashIsALoneSlash) {
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), root()), "/");
}

TEST_F(PathsOnDiskTest, IsDirectoryTellsFoldersFromFilesAndAbsentItems) {
  EXPECT_TRUE(isDirectory(item("d")));
  EXPECT_TRUE(isDirectory(item("to-d")));
  EXPECT_TRUE(isDirectory(url("/")));
  EXPECT_FALSE(isDirectory(item("f")));
  EXPECT_FALSE(isDirectory(item("to-f")));
  EXPECT_FALSE(isDirectory(item("gone")));
  EXPECT_FALSE(isDirectory(item("to-nothing")));
  EXPECT_FALSE(isDirectory(item("f/below-a-file")));
}

TEST_F(PathsOnDiskTest, IsDirectoryIsFalseForADevice) {
  EXPECT_FALSE(isDirectory(url("/dev/null")));
}

TEST_F(PathsOnDiskTest, NoListGivesNoCloudPaths) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::nullopt), IsEmpty());
}

TEST_F(PathsOnDiskTest, AnEmptyListGivesNoCloudPaths) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector<FileURL>{}), IsEmpty());
}

TEST_F(PathsOnDiskTest, AVanishedItemIsLeftOutAndAFolderEndsInASlash) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{item("gone"), item("d")}), ElementsAre("/d/"));
}

TEST_F(PathsOnDiskTest, OnlyVanishedItemsGiveNoCloudPaths) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{item("gone"), item("to-nothing")}), IsEmpty());
}

TEST_F(PathsOnDiskTest, CloudPathsKeepTheOrderOfTheList) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{item("to-f"), item("f"), item("gone"), item("d")}),
              ElementsAre("/to-f", "/f", "/d/"));
}

TEST_F(PathsOnDiskTest, AnItemListedTwiceIsGivenTwice) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{item("f"), item("d"), item("f"), item("d")}),
              ElementsAre("/f", "/d/", "/f", "/d/"));
}

TEST_F(PathsOnDiskTest, ALinkToAFolderCountsAsAFolder) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{item("to-d")}), ElementsAre("/to-d/"));
}

TEST_F(PathsOnDiskTest, TheRootAmongTheListIsALoneSlash) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{root()}), ElementsAre("/"));
}

TEST_F(PathsOnDiskTest, AnItemOutsideTheRootKeepsItsPath) {
  EXPECT_THAT(urlsToCloudPaths(item("d"), std::vector{item("f")}), ElementsAre(folder_ / "f"));
}

TEST_F(PathsOnDiskTest, CloudPathsOfAListRemoveEveryOccurrenceOfTheRoot) {
  const fs::path copy = folder_.path() / fs::path(folder_.path()).relative_path();
  writeFile(copy / "y", "text");
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{url((copy / "y").string())}), ElementsAre("/y"));
}

TEST(LocalPathTest, IsTheRootFollowedByTheCloudPath) {
  EXPECT_EQ(getLocalPath(ROOT, "/a b/c"), url("/R/a b/c"));
  EXPECT_EQ(getLocalPath(ROOT, "/a b/c").path(), "/R/a b/c");
}

TEST(LocalPathTest, NoSeparatorIsInserted) {
  EXPECT_EQ(getLocalPath(ROOT, "a").path(), "/Ra");
}

TEST(LocalPathTest, OfTheEmptyCloudPathIsTheRoot) {
  EXPECT_EQ(getLocalPath(ROOT, ""), ROOT);
  EXPECT_EQ(getLocalPath(ROOT, "/"), ROOT);
}

TEST(LocalPathTest, OfAFolderHasNoTrailingSlash) {
  EXPECT_EQ(getLocalPath(ROOT, "/d/").path(), "/R/d");
}

TEST(LocalPathTest, PercentSignsAreNotDecoded) {
  EXPECT_EQ(getLocalPath(ROOT, "/a%20b").path(), "/R/a%20b");
}

TEST(LocalPathTest, OfATextObjectIsTheSame) {
  EXPECT_EQ(getLocalPathOfObject(ROOT, "/a b/c"), getLocalPath(ROOT, "/a b/c"));
  EXPECT_EQ(getLocalPathOfObject(ROOT, "a").path(), "/Ra");
  EXPECT_EQ(getLocalPathOfObject(ROOT, "").path(), "/R");
}

TEST(LocalPathTest, AndCloudPathAreInverse) {
  for (const char* path : {"/a", "/a b/c", "/\u00e9/\u65e5\u672c", "/%", ""})
    EXPECT_EQ(getCloudPath(ROOT, getLocalPath(ROOT, path)), path);
}

TEST(EscapeTest, ExactlyLettersDigitsAndQueryCharactersOfASCIIStay) {
  const std::string kept =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
      "-._~!$&'()*+,;=:@/?";
  const std::set<char> stays(kept.begin(), kept.end());
  ASSERT_EQ(stays.size(), kept.size());
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    char expected[4];
    std::snprintf(expected, sizeof expected, "%%%02X", static_cast<unsigned>(byte));
    EXPECT_EQ(escape(text), stays.contains(text[0]) ? text : std::string(expected)) << byte;
  }
}

std::string utf8(char32_t c) {
  const auto byte = [](char32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
  if (c < 0x80) return {byte(c)};
  if (c < 0x800) return {byte(0xC0 | c >> 6), byte(0x80 | (c & 0x3F))};
  if (c < 0x10000) return {byte(0xE0 | c >> 12), byte(0x80 | (c >> 6 & 0x3F)), byte(0x80 | (c & 0x3F))};
  return {byte(0xF0 | c >> 18), byte(0x80 | (c >> 12 & 0x3F)), byte(0x80 | (c >> 6 & 0x3F)), byte(0x80 | (c & 0x3F))};
}

TEST(EscapeTest, EveryByteOfAnyOtherCharacterIsEncoded) {
  for (char32_t c = 0x80; c < 0x110000; c += c < 0x3000 ? 1 : 61) {
    if (c >= 0xD800 && c < 0xE000) continue;
    std::string expected;
    for (const char part : utf8(c)) {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(part)));
      expected += escaped;
    }
    ASSERT_EQ(escape(utf8(c)), expected) << static_cast<std::uint32_t>(c);
  }
}

TEST(EscapeTest, WholeTexts) {
  EXPECT_EQ(escape(""), "");
  EXPECT_EQ(escape("/a b/\u00fc?x=1&y=50%#top"), "/a%20b/%C3%BC?x=1&y=50%25%23top");
  EXPECT_EQ(escape(std::string_view("a\0b", 3)), "a%00b");
}

using PathsDeathTest = ProcessStops;

const FileURL NO_PATH;

TEST_F(PathsDeathTest, ARootWithoutAPathStopsEveryFunctionThatNeedsIt) {
  EXPECT_DEATH(getCloudPath(NO_PATH, url("/a")), "without a path");
  EXPECT_DEATH(getCloudPath(NO_PATH, std::string_view("/a")), "without a path");
  EXPECT_DEATH(getCloudPathWithTrailingSlash(NO_PATH, url("/a")), "without a path");
  EXPECT_DEATH(getLocalPath(NO_PATH, "/a"), "without a path");
  EXPECT_DEATH(getLocalPathOfObject(NO_PATH, "/a"), "without a path");
  EXPECT_DEATH(urlsToCloudPaths(NO_PATH, std::vector{url("/")}), "without a path");
}

TEST_F(PathsDeathTest, AnItemWithoutAPathStopsEveryFunctionThatNeedsIt) {
  EXPECT_DEATH(getCloudPath(ROOT, NO_PATH), "without a path");
  EXPECT_DEATH(getCloudPathWithTrailingSlash(ROOT, NO_PATH), "without a path");
  EXPECT_DEATH(urlsToCloudPaths(ROOT, std::vector{url("/"), NO_PATH}), "without a path");
  EXPECT_DEATH(isDirectory(NO_PATH), "without a path");
}

TEST_F(PathsDeathTest, AnURLWhoseBytesAreNotUTF8HasNoPathAndStopsTheProcess) {
  const auto item = FileURL::fileURLWithText("file:///R/%FF");
  ASSERT_TRUE(item);
  EXPECT_DEATH(getCloudPath(ROOT, *item), "without a path");
}

TEST_F(PathsDeathTest, AMissingTextObjectStopsTheProcess) {
  EXPECT_DEATH(getLocalPathOfObject(ROOT, std::nullopt), "missing cloud path");
}

TEST_F(PathsDeathTest, EncodingOfTextThatIsNotUTF8StopsTheProcess) {
  EXPECT_DEATH(escape("a\xFF"), "not UTF-8");
  EXPECT_DEATH(escape("\xC3"), "not UTF-8");
  EXPECT_DEATH(escape("\xC0\xAF"), "not UTF-8");
  EXPECT_DEATH(escape("\xED\xA0\x80"), "not UTF-8");
}

TEST_F(PathsDeathTest, NoByteAbove7FStandsAloneInText) {
  for (int byte = 0x80; byte < 0x100; byte += 0x1F)
    EXPECT_DEATH(escape(std::string(1, static_cast<char>(byte))), "not UTF-8") << byte;
}

}  // namespace
}  // namespace vornet::test
