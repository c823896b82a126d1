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

struct CloudPathCase {
  const char* name;
  const char* root;
  const char* item;
  const char* cloudPath;
};
void PrintTo(const CloudPathCase& tested, std::ostream* out) {
  *out << tested.name;
}
class CloudPath : public ::testing::TestWithParam<CloudPathCase> {};

TEST_P(CloudPath, IsThePathWithoutTheRoot) {
  const auto& [name, root, item, cloudPath] = GetParam();
  EXPECT_EQ(getCloudPath(url(root), url(item)), cloudPath);
  EXPECT_EQ(getCloudPath(url(root), std::string_view(*url(item).path())), cloudPath) << "of a text";
}

INSTANTIATE_TEST_SUITE_P(
    , CloudPath,
    ::testing::Values(CloudPathCase{"OfAnItemBeginsWithASlash", "/R", "/R/a/b", "/a/b"},
                      CloudPathCase{"OfTheRootIsEmpty", "/R", "/R", ""},
                      CloudPathCase{"OfAnItemOutsideTheRootIsItsPathUnchanged", "/R", "/other/a", "/other/a"},
                      CloudPathCase{"EveryOccurrenceOfTheRootIsRemoved", "/R", "/R/x/R/y", "/x/y"},
                      CloudPathCase{"TheRootIsRemovedInsideAPathOutsideIt", "/R", "/other/R/a", "/other/a"},
                      CloudPathCase{"TheRootIsRemovedEvenWhereItEndsWithinAName", "/R", "/Rest/a", "est/a"},
                      CloudPathCase{"AdjacentOccurrencesAreRemoved", "/R", "/R/R/R/a", "/a"},
                      CloudPathCase{"APairOfAdjacentOccurrencesIsRemoved", "/R/R", "/R/R/R/R", ""},
                      CloudPathCase{"AMatchThatARemovalJoinsIsNotRemoved", "/ab", "/a/abb", "/ab"},
                      CloudPathCase{"CaseMatters", "/R", "/r/a", "/r/a"},
                      CloudPathCase{"TheRootIsTakenLiterally", "/R.*", "/R.*/a", "/a"},
                      CloudPathCase{"TheRootIsNoPattern", "/R.*", "/Rxx/a", "/Rxx/a"},
                      CloudPathCase{"DifferentlyComposedCharactersAreDifferent", "/\u00e9", "/e\u0301/a", "/e\u0301/a"},
                      CloudPathCase{"EquallyComposedCharactersAreEqual", "/\u00e9", "/\u00e9/\u00fc", "/\u00fc"},
                      CloudPathCase{"TrailingSlashesOfRootAndItemDoNotCount", "/R/", "/R/a/", "/a"},
                      CloudPathCase{"OfTheRootWithASlashIsEmpty", "/R", "/R/", ""},
                      CloudPathCase{"TheRootFolderOfTheSystemAsRootLosesEverySlash", "/", "/a/b", "ab"}),
    [](const auto& tested) { return tested.param.name; });

TEST(CloudPathTest, APathTextIsTakenAsItIs) {
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("/R/a/")), "/a/");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("a//R/b")), "a//b");
  EXPECT_EQ(getCloudPath(ROOT, std::string_view("")), "");
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

TEST_F(PathsOnDiskTest, ASlashFollowsTheCloudPathOfAFolderAndNothingThatOfAFileOrAnAbsentItem) {
  for (const std::string name : {"d", "to-d", "f", "to-f", "gone", "to-nothing"}) {
    const auto slash = name.ends_with("d") ? "/" : "";
    EXPECT_EQ(getCloudPathWithTrailingSlash(root(), item(name)), "/" + name + slash);
  }
}

TEST_F(PathsOnDiskTest, TheRootWithTrailingSlashIsALoneSlash) {
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), root()), "/");
}

TEST_F(PathsOnDiskTest, IsDirectoryDistinguishesFoldersFromFilesDevicesAndAbsentItems) {
  for (const auto& folder : {item("d"), item("to-d"), url("/")}) EXPECT_TRUE(isDirectory(folder)) << *folder.path();
  for (const auto& other :
       {item("f"), item("to-f"), item("gone"), item("to-nothing"), item("f/below-a-file"), url("/dev/null")})
    EXPECT_FALSE(isDirectory(other)) << *other.path();
}

TEST_F(PathsOnDiskTest, NoListAndAnEmptyOneGiveNoCloudPaths) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::nullopt), IsEmpty());
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector<FileURL>{}), IsEmpty());
}

struct ListCase {
  const char* name;
  std::vector<std::string> items;
  std::vector<std::string> cloudPaths;
};
void PrintTo(const ListCase& tested, std::ostream* out) {
  *out << tested.name;
}
class CloudPathsOfAList : public PathsOnDiskTest, public ::testing::WithParamInterface<ListCase> {};

TEST_P(CloudPathsOfAList, AreThoseOfItsItems) {
  std::vector<FileURL> items;
  for (const auto& name : GetParam().items) items.push_back(item(name));
  EXPECT_EQ(urlsToCloudPaths(root(), items), GetParam().cloudPaths);
}

INSTANTIATE_TEST_SUITE_P(
    , CloudPathsOfAList,
    ::testing::Values(ListCase{"WithoutAVanishedItemAndAFolderEndsInASlash", {"gone", "d"}, {"/d/"}},
                      ListCase{"NoneForVanishedItemsAlone", {"gone", "to-nothing"}, {}},
                      ListCase{"InTheOrderOfTheList", {"to-f", "f", "gone", "d"}, {"/to-f", "/f", "/d/"}},
                      ListCase{"TwiceForAnItemListedTwice", {"f", "d", "f", "d"}, {"/f", "/d/", "/f", "/d/"}},
                      ListCase{"ALinkToAFolderCountsAsAFolder", {"to-d"}, {"/to-d/"}},
                      ListCase{"TheRootIsALoneSlash", {""}, {"/"}}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(PathsOnDiskTest, AnItemOutsideTheRootKeepsItsPath) {
  EXPECT_THAT(urlsToCloudPaths(item("d"), std::vector{item("f")}), ElementsAre(folder_ / "f"));
}

TEST_F(PathsOnDiskTest, CloudPathsOfAListRemoveEveryOccurrenceOfTheRoot) {
  const fs::path copy = folder_.path() / fs::path(folder_.path()).relative_path();
  writeFile(copy / "y", "text");
  EXPECT_THAT(urlsToCloudPaths(root(), std::vector{url((copy / "y").string())}), ElementsAre("/y"));
}

TEST(LocalPathTest, IsTheRootFollowedByTheCloudPathAsItIsWithoutATrailingSlash) {
  const std::pair<const char*, const char*> cases[] = {
      {"/a b/c", "/R/a b/c"}, {"a", "/Ra"}, {"", "/R"}, {"/", "/R"}, {"/d/", "/R/d"}, {"/a%20b", "/R/a%20b"}};
  for (const auto& [cloudPath, path] : cases) {
    EXPECT_EQ(getLocalPath(ROOT, cloudPath).path(), path) << cloudPath;
    EXPECT_EQ(getLocalPathOfObject(ROOT, cloudPath), getLocalPath(ROOT, cloudPath)) << cloudPath;
  }
  EXPECT_EQ(getLocalPath(ROOT, "/a b/c"), url("/R/a b/c"));
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

TEST_F(PathsDeathTest, NoByteAbove7FIsAloneInText) {
  for (int byte = 0x80; byte < 0x100; byte += 0x1F)
    EXPECT_DEATH(escape(std::string(1, static_cast<char>(byte))), "not UTF-8") << byte;
}

}  // namespace
}  // namespace vornet::test
