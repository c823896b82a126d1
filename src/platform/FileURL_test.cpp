#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "platform/Foundation.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_literals;

std::optional<std::string> pathOf(std::string_view text) {
  const auto url = FileURL::fileURLWithText(text);
  EXPECT_TRUE(url.has_value()) << text;
  return url ? url->path() : std::nullopt;
}

std::string textOf(std::string_view path) {
  return FileURL::fileURLWithPath(path).description();
}

// --- From paths

TEST(FileURLFromPath, KeepsAnAbsolutePath) {
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann").path(), "/home/ann");
  EXPECT_EQ(FileURL::fileURLWithPath("/home//ann/../b").path(), "/home//ann/../b");
}

TEST(FileURLFromPath, DropsTrailingSlashes) {
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann/").path(), "/home/ann");
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann///").path(), "/home/ann");
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann/", true).path(), "/home/ann");
}

TEST(FileURLFromPath, KeepsTheRootFolder) {
  EXPECT_EQ(FileURL::fileURLWithPath("/").path(), "/");
  EXPECT_EQ(FileURL::fileURLWithPath("///").path(), "/");
}

TEST(FileURLFromPath, TakesARelativePathFromTheCurrentFolder) {
  const test::TemporaryFolder folder;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  EXPECT_EQ(FileURL::fileURLWithPath("a/b").path(), folder / "a/b");
  std::filesystem::current_path(before);
}

TEST(FileURLFromPath, MakesNoPathOfARelativeOneWhenTheCurrentFolderIsGone) {
  const test::TemporaryFolder folder;
  const auto before = std::filesystem::current_path();
  std::filesystem::create_directory(folder / "gone");
  std::filesystem::current_path(folder / "gone");
  std::filesystem::remove(folder / "gone");
  EXPECT_EQ(FileURL::fileURLWithPath("a/b").path(), std::nullopt);
  EXPECT_EQ(FileURL::fileURLWithPath("", true).path(), std::nullopt);
  EXPECT_EQ(FileURL::fileURLWithPath("/a").path(), "/a");
  std::filesystem::current_path(before);
}

TEST(FileURLFromPath, TouchesNoDisk) {
  EXPECT_EQ(FileURL::fileURLWithPath("/no such folder/x").path(), "/no such folder/x");
}

TEST(FileURL, HasNoPathWhenMadeOfNothing) {
  const FileURL url;
  EXPECT_EQ(url.path(), std::nullopt);
  EXPECT_EQ(url.description(), "");
  EXPECT_EQ(url.appendingPathComponent("a").path(), std::nullopt);
}

// --- As text

TEST(FileURLDescription, IsTheURLsText) {
  EXPECT_EQ(textOf("/home/ann/vi.log"), "file:///home/ann/vi.log");
  EXPECT_EQ(textOf("/"), "file:///");
}

TEST(FileURLDescription, EndsInOneSlashForADirectory) {
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann", true).description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann/", true).description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithPath("/", true).description(), "file:///");
}

TEST(FileURLDescription, EscapesWhatHasAMeaningInURLs) {
  EXPECT_EQ(textOf("/a b%20c#d?e;f"), "file:///a%20b%2520c%23d%3Fe%3Bf");
  EXPECT_EQ(textOf("/a\nb\tc\x7F\"<>[\\]^`{|}"), "file:///a%0Ab%09c%7F%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D");
}

TEST(FileURLDescription, KeepsWhatHasNone) {
  EXPECT_EQ(textOf("/AZaz09-._~!$&'()*+,=:@"), "file:///AZaz09-._~!$&'()*+,=:@");
}

TEST(FileURLDescription, EscapesTextOfAllLanguagesByteByByte) {
  EXPECT_EQ(textOf("/ü"), "file:///%C3%BC");
  EXPECT_EQ(textOf("/🙂"), "file:///%F0%9F%99%82");
  EXPECT_EQ(textOf("/日本"), "file:///%E6%97%A5%E6%9C%AC");
}

TEST(FileURLDescription, ReadsBackAsTheSameURL) {
  for (const std::string& path : {"/a b"s, "/100%"s, "/%41"s, "/#1"s, "/what?"s, "/new\nline"s, "/🙂/日本"s,
                                  "/a;b&c=d"s, "/\x01\x7F"s, "/"s, "/caf\u00E9"s, "/cafe\u0301"s, "/a//b"s, "/.."s}) {
    for (const bool isDirectory : {false, true}) {
      const auto url = FileURL::fileURLWithPath(path, isDirectory);
      EXPECT_EQ(pathOf(url.description()), path);
    }
  }
}

// --- From text

TEST(FileURLFromText, ReadsAPlainURL) {
  EXPECT_EQ(pathOf("file:///home/ann"), "/home/ann");
  EXPECT_EQ(pathOf("file:///"), "/");
}

TEST(FileURLFromText, DecodesEscapes) {
  EXPECT_EQ(pathOf("file:///a%20b"), "/a b");
  EXPECT_EQ(pathOf("file:///%25%23%3F%0A"), "/%#?\n");
  EXPECT_EQ(pathOf("file:///%f0%9F%99%82"), "/🙂");
  EXPECT_EQ(pathOf("file:///a%2541"), "/a%41") << "decoded once only";
  EXPECT_EQ(pathOf("file:///a%2Fb"), "/a/b");
}

TEST(FileURLFromText, TakesTextThatNeedNotBeEscaped) {
  EXPECT_EQ(pathOf("file:///a b/ü+c"), "/a b/ü+c");
}

TEST(FileURLFromText, DropsTrailingSlashes) {
  EXPECT_EQ(pathOf("file:///home/ann/"), "/home/ann");
  EXPECT_EQ(pathOf("file:///home/ann//"), "/home/ann");
  EXPECT_EQ(pathOf("file:///home/ann%2F"), "/home/ann");
}

TEST(FileURLFromText, KnowsADirectoryByItsSlash) {
  EXPECT_EQ(FileURL::fileURLWithText("file:///home/ann/")->description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithText("file:///home/ann")->description(), "file:///home/ann");
}

TEST(FileURLFromText, TakesThisMachinesNames) {
  EXPECT_EQ(pathOf("file://localhost/a"), "/a");
  EXPECT_EQ(pathOf("file://LOCALHOST/a"), "/a");
  EXPECT_EQ(pathOf("FILE:///a"), "/a");
}

TEST(FileURLFromText, TakesAURLWithoutAuthority) {
  EXPECT_EQ(pathOf("file:/a"), "/a");
  EXPECT_EQ(pathOf("FILE:/a%20b/"), "/a b");
  EXPECT_EQ(pathOf("file:/"), "/");
  EXPECT_EQ(FileURL::fileURLWithText("file:/a/")->description(), "file:///a/");
}

TEST(FileURLFromText, RefusesOtherMachines) {
  for (const char* text : {"file://server/a", "file://localhost.example/a", "file://localhostile/a",
                           "file://127.0.0.1/a", "file://localhost:80/a", "file://ann@localhost/a"}) {
    EXPECT_EQ(FileURL::fileURLWithText(text), std::nullopt) << text;
  }
}

TEST(FileURLFromText, RefusesOtherSchemesAndShapes) {
  for (const char* text :
       {"", "/home/ann", "file:", "file://", "file://localhost", "http:///a", "sftp://localhost/a", "files:///a", "a",
        " file:///a", "file:a", "file:localhost/a", "file/a", "trash:///a", "file:\\\\a", "ile:///a"}) {
    EXPECT_EQ(FileURL::fileURLWithText(text), std::nullopt) << text;
  }
}

TEST(FileURLFromText, RefusesQueriesAndFragments) {
  for (const char* text : {"file:///a?b", "file:///a#b", "file:///?", "file:///#"})
    EXPECT_EQ(FileURL::fileURLWithText(text), std::nullopt) << text;
}

TEST(FileURLFromText, RefusesBrokenEscapes) {
  for (const char* text : {"file:///a%", "file:///a%4", "file:///a%4g", "file:///a%g4", "file:///a%%41",
                           "file:///a% 41", "file:///a%-1"}) {
    EXPECT_EQ(FileURL::fileURLWithText(text), std::nullopt) << text;
  }
}

TEST(FileURLFromText, RefusesNUL) {
  EXPECT_EQ(FileURL::fileURLWithText("file:///a%00b"), std::nullopt);
  EXPECT_EQ(FileURL::fileURLWithText("file:///a\0b"s), std::nullopt);
}

TEST(FileURLFromText, HasNoPathWhenTheBytesAreNotUTF8) {
  for (const char* text : {"file:///a%FF", "file:///%C3", "file:///%ED%A0%80", "file:///%C0%AF", "file:///a\xFF"}) {
    const auto url = FileURL::fileURLWithText(text);
    ASSERT_TRUE(url.has_value()) << text;
    EXPECT_EQ(url->path(), std::nullopt) << text;
    EXPECT_EQ(url->description(), "") << text;
  }
}

TEST(FileURLFromText, KeepsComposedAndDecomposedNamesApart) {
  const auto composed = FileURL::fileURLWithText("file:///caf%C3%A9");
  const auto decomposed = FileURL::fileURLWithText("file:///cafe%CC%81");
  EXPECT_EQ(composed->path(), "/caf\u00E9");
  EXPECT_EQ(decomposed->path(), "/cafe\u0301");
  EXPECT_NE(composed, decomposed);
}

// --- Below, and comparing

TEST(FileURL, AppendsAComponent) {
  EXPECT_EQ(FileURL::fileURLWithPath("/a").appendingPathComponent("b").path(), "/a/b");
  EXPECT_EQ(FileURL::fileURLWithPath("/a/").appendingPathComponent("b c").path(), "/a/b c");
  EXPECT_EQ(FileURL::fileURLWithPath("/").appendingPathComponent("b").path(), "/b");
  EXPECT_EQ(FileURL::fileURLWithPath("/a", true).appendingPathComponent("b").description(), "file:///a/b");
}

TEST(FileURL, IsEqualByPathAlone) {
  EXPECT_EQ(FileURL::fileURLWithPath("/a"), FileURL::fileURLWithPath("/a/"));
  EXPECT_EQ(FileURL::fileURLWithPath("/a"), FileURL::fileURLWithPath("/a", true));
  EXPECT_EQ(FileURL::fileURLWithPath("/a b"), FileURL::fileURLWithText("file:///a%20b"));
  EXPECT_NE(FileURL::fileURLWithPath("/a"), FileURL::fileURLWithPath("/A"));
  EXPECT_NE(FileURL::fileURLWithPath("/a"), FileURL());
  EXPECT_EQ(FileURL(), FileURL());
}

TEST(FileURL, SortsByPath) {
  const std::set<FileURL> urls = {FileURL::fileURLWithPath("/b"), FileURL::fileURLWithPath("/a"), FileURL(),
                                  FileURL::fileURLWithPath("/a", true)};
  ASSERT_EQ(urls.size(), 3u);
  EXPECT_EQ(urls.begin()->path(), std::nullopt);
  EXPECT_EQ(urls.rbegin()->path(), "/b");
}

}  // namespace
}  // namespace vornet::platform
