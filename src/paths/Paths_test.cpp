#include "paths/Paths.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

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

TEST(CloudPathTest, IsThePathWithoutTheRoot) {
  const struct {
    const char* name;
    const char* root;
    const char* item;
    const char* cloudPath;
  } cases[] = {{"of an item begins with a slash", "/R", "/R/a/b", "/a/b"},
               {"of the root is empty", "/R", "/R", ""},
               {"of an item outside the root is its path unchanged", "/R", "/other/a", "/other/a"},
               {"every occurrence of the root is removed", "/R", "/R/x/R/y", "/x/y"},
               {"the root is removed inside a path outside it", "/R", "/other/R/a", "/other/a"},
               {"the root is removed even where it ends within a name", "/R", "/Rest/a", "est/a"},
               {"adjacent occurrences are removed", "/R", "/R/R/R/a", "/a"},
               {"a pair of adjacent occurrences is removed", "/R/R", "/R/R/R/R", ""},
               {"a match that a removal joins is not removed", "/ab", "/a/abb", "/ab"},
               {"case matters", "/R", "/r/a", "/r/a"},
               {"the root is taken literally", "/R.*", "/R.*/a", "/a"},
               {"the root is no pattern", "/R.*", "/Rxx/a", "/Rxx/a"},
               {"differently composed characters are different", "/\u00e9", "/e\u0301/a", "/e\u0301/a"},
               {"equally composed characters are equal", "/\u00e9", "/\u00e9/\u00fc", "/\u00fc"},
               {"trailing slashes of root and item do not count", "/R/", "/R/a/", "/a"},
               {"of the root with a slash is empty", "/R", "/R/", ""},
               {"the root folder of the system as root loses every slash", "/", "/a/b", "ab"}};
  for (const auto& [name, root, item, cloudPath] : cases) {
    EXPECT_EQ(getCloudPath(url(root), url(item)), cloudPath) << name;
    EXPECT_EQ(getCloudPath(url(root), std::string_view(*url(item).path())), cloudPath) << name << ", of a text";
  }
}

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
  EXPECT_EQ(getCloudPathWithTrailingSlash(root(), root()), "/") << "the root";
}

TEST_F(PathsOnDiskTest, IsDirectoryDistinguishesFoldersFromFilesDevicesAndAbsentItems) {
  for (const auto& folder : {item("d"), item("to-d"), url("/")}) EXPECT_TRUE(isDirectory(folder)) << *folder.path();
  for (const auto& other :
       {item("f"), item("to-f"), item("gone"), item("to-nothing"), item("f/below-a-file"), url("/dev/null")})
    EXPECT_FALSE(isDirectory(other)) << *other.path();
}

TEST_F(PathsOnDiskTest, NoListGivesNoCloudPaths) {
  EXPECT_THAT(urlsToCloudPaths(root(), std::nullopt), IsEmpty());
}

TEST_F(PathsOnDiskTest, TheCloudPathsOfAListAreThoseOfItsItems) {
  const struct {
    const char* name;
    std::vector<std::string> items;
    std::vector<std::string> cloudPaths;
  } cases[] = {{"without a vanished item and a folder ends in a slash", {"gone", "d"}, {"/d/"}},
               {"none for vanished items alone", {"gone", "to-nothing"}, {}},
               {"in the order of the list", {"to-f", "f", "gone", "d"}, {"/to-f", "/f", "/d/"}},
               {"twice for an item listed twice", {"f", "d", "f", "d"}, {"/f", "/d/", "/f", "/d/"}},
               {"a link to a folder counts as a folder", {"to-d"}, {"/to-d/"}},
               {"the root is a lone slash", {""}, {"/"}},
               {"without items", {}, {}}};
  for (const auto& [name, names, cloudPaths] : cases) {
    std::vector<FileURL> items;
    for (const auto& itemName : names) items.push_back(item(itemName));
    EXPECT_EQ(urlsToCloudPaths(root(), items), cloudPaths) << name;
  }
}

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

TEST(EscapeTest, ExactlyLettersDigitsAndQueryCharactersOfASCIIStayAndEveryByteOfAnyOtherCharacterIsEncoded) {
  const std::string kept =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
      "-._~!$&'()*+,;=:@/?";
  for (char32_t c = 0; c < 0x110000; c += c < 0x3000 ? 1 : 61) {
    if (c >= 0xD800 && c < 0xE000) continue;
    const auto text = fs::path(std::u32string(1, c)).string();
    std::string encoded;
    for (const char part : text) {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(part)));
      encoded += escaped;
    }
    ASSERT_EQ(escape(text), kept.find(text) != kept.npos ? text : encoded) << static_cast<std::uint32_t>(c);
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
  std::vector<std::string> texts = {"a\xFF", "\xC3", "\xC0\xAF", "\xED\xA0\x80"};
  for (int byte = 0x80; byte < 0x100; byte += 0x1F) texts.emplace_back(1, static_cast<char>(byte));
  for (const auto& text : texts) EXPECT_DEATH(escape(text), "not UTF-8") << ::testing::PrintToString(text);
}

}  // namespace
}  // namespace vornet::test
