#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "platform/Foundation.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_literals;

/// What is expected, and what it is expected for.
using Expectations = std::vector<std::pair<const char*, std::vector<const char*>>>;

std::optional<std::string> pathOf(std::string_view text) {
  const auto url = FileURL::fileURLWithText(text);
  EXPECT_TRUE(url.has_value()) << text;
  return url ? url->path() : std::nullopt;
}

// --- From paths

TEST(FileURLFromPath, KeepsAnAbsolutePathWithoutItsTrailingSlashes) {
  for (const auto& [expected, paths] : Expectations{{"/home/ann", {"/home/ann", "/home/ann/", "/home/ann///"}},
                                                    {"/home//ann/../b", {"/home//ann/../b"}},
                                                    {"/no such folder/x", {"/no such folder/x"}},
                                                    {"/", {"/", "///"}}}) {
    for (const char* path : paths) {
      EXPECT_EQ(FileURL::fileURLWithPath(path).path(), expected);
      EXPECT_EQ(FileURL::fileURLWithPath(path, true).path(), expected);
    }
  }
}

TEST(FileURLFromPath, TakesARelativePathFromTheCurrentFolderUnlessThatIsGone) {
  const test::TemporaryFolder folder;
  const auto before = std::filesystem::current_path();
  std::filesystem::create_directory(folder / "current");
  std::filesystem::current_path(folder / "current");
  EXPECT_EQ(FileURL::fileURLWithPath("a/b").path(), folder / "current/a/b");
  std::filesystem::remove(folder / "current");
  EXPECT_EQ(FileURL::fileURLWithPath("a/b").path(), std::nullopt);
  EXPECT_EQ(FileURL::fileURLWithPath("", true).path(), std::nullopt);
  EXPECT_EQ(FileURL::fileURLWithPath("/a").path(), "/a");
  std::filesystem::current_path(before);
}

TEST(FileURL, HasNoPathWhenMadeOfNothing) {
  const FileURL url;
  EXPECT_EQ(url.path(), std::nullopt);
  EXPECT_EQ(url.description(), "");
  EXPECT_EQ(url.appendingPathComponent("a").path(), std::nullopt);
}

// --- As text

TEST(FileURLDescription, IsTheURLsTextWithEscapes) {
  for (const auto& [path, text] : std::vector<std::pair<const char*, const char*>>{
           {"/home/ann/vi.log", "file:///home/ann/vi.log"},
           {"/", "file:///"},
           {"/a b%20c#d?e;f", "file:///a%20b%2520c%23d%3Fe%3Bf"},
           {"/a\nb\tc\x7F\"<>[\\]^`{|}", "file:///a%0Ab%09c%7F%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D"},
           {"/AZaz09-._~!$&'()*+,=:@", "file:///AZaz09-._~!$&'()*+,=:@"},
           {"/ü", "file:///%C3%BC"},
           {"/🙂", "file:///%F0%9F%99%82"},
           {"/日本", "file:///%E6%97%A5%E6%9C%AC"}})
    EXPECT_EQ(FileURL::fileURLWithPath(path).description(), text);
}

TEST(FileURLDescription, EndsInOneSlashForADirectory) {
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann", true).description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithPath("/home/ann/", true).description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithPath("/", true).description(), "file:///");
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

TEST(FileURLFromText, IsDecodedOnceAndLosesItsTrailingSlashes) {
  for (const auto& [path, texts] : Expectations{
           {"/home/ann", {"file:///home/ann", "file:///home/ann/", "file:///home/ann//", "file:///home/ann%2F"}},
           {"/", {"file:///", "file:/"}},
           {"/a", {"file://localhost/a", "file://LOCALHOST/a", "FILE:///a", "file:/a"}},
           {"/a b", {"file:///a%20b", "FILE:/a%20b/"}},
           {"/%#?\n", {"file:///%25%23%3F%0A"}},
           {"/🙂", {"file:///%f0%9F%99%82"}},
           {"/caf\u00E9", {"file:///caf%C3%A9"}},
           {"/cafe\u0301", {"file:///cafe%CC%81"}},
           {"/a%41", {"file:///a%2541"}},
           {"/a/b", {"file:///a%2Fb"}},
           {"/a b/ü+c", {"file:///a b/ü+c"}}})
    for (const char* text : texts) EXPECT_EQ(pathOf(text), path) << text;
}

TEST(FileURLFromText, KnowsADirectoryByItsSlash) {
  EXPECT_EQ(FileURL::fileURLWithText("file:///home/ann/")->description(), "file:///home/ann/");
  EXPECT_EQ(FileURL::fileURLWithText("file:///home/ann")->description(), "file:///home/ann");
  EXPECT_EQ(FileURL::fileURLWithText("file:/a/")->description(), "file:///a/");
}

TEST(FileURLFromText, RefusesTextThatIsNoLocalFileURL) {
  for (const std::string& text : {// other machines
                                  "file://server/a"s, "file://localhost.example/a"s, "file://localhostile/a"s,
                                  "file://127.0.0.1/a"s, "file://localhost:80/a"s, "file://ann@localhost/a"s,
                                  // other schemes and shapes
                                  ""s, "/home/ann"s, "file:"s, "file://"s, "file://localhost"s, "http:///a"s,
                                  "sftp://localhost/a"s, "files:///a"s, "a"s, " file:///a"s, "file:a"s,
                                  "file:localhost/a"s, "file/a"s, "trash:///a"s, "file:\\\\a"s, "ile:///a"s,
                                  // queries and fragments
                                  "file:///a?b"s, "file:///a#b"s, "file:///?"s, "file:///#"s,
                                  // broken escapes
                                  "file:///a%"s, "file:///a%4"s, "file:///a%4g"s, "file:///a%g4"s, "file:///a%%41"s,
                                  "file:///a% 41"s, "file:///a%-1"s,
                                  // NUL
                                  "file:///a%00b"s, "file:///a\0b"s})
    EXPECT_EQ(FileURL::fileURLWithText(text), std::nullopt) << text;
}

TEST(FileURLFromText, HasNoPathWhenTheBytesAreNotUTF8) {
  for (const char* text : {"file:///a%FF", "file:///%C3", "file:///%ED%A0%80", "file:///%C0%AF", "file:///a\xFF"}) {
    const auto url = FileURL::fileURLWithText(text);
    ASSERT_TRUE(url.has_value()) << text;
    EXPECT_EQ(url->path(), std::nullopt) << text;
    EXPECT_EQ(url->description(), "") << text;
  }
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
  EXPECT_NE(FileURL::fileURLWithText("file:///caf%C3%A9"), FileURL::fileURLWithText("file:///cafe%CC%81"))
      << "a composed and a decomposed name";
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
