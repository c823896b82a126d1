#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/Foundation.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::writeFile;

class FilesTest : public testing::Test {
 protected:
  std::string at(std::string_view name) const { return folder / name; }
  test::TemporaryFolder folder;
};

// --- What stands at a path

TEST_F(FilesTest, KindKnowsFilesAndDirectories) {
  writeFile(at("file"), "");
  fs::create_directory(at("folder"));
  EXPECT_EQ(fileKindAtPath(at("file")), FileKind::file);
  EXPECT_EQ(fileKindAtPath(at("folder")), FileKind::directory);
  EXPECT_EQ(fileKindAtPath(at("folder/")), FileKind::directory);
  EXPECT_EQ(fileKindAtPath("/"), FileKind::directory);
}

TEST_F(FilesTest, KindFollowsSymbolicLinks) {
  writeFile(at("file"), "");
  fs::create_directory(at("folder"));
  fs::create_symlink("file", at("toFile"));
  fs::create_symlink("folder", at("toFolder"));
  fs::create_symlink("toFolder", at("toLink"));
  EXPECT_EQ(fileKindAtPath(at("toFile")), FileKind::file);
  EXPECT_EQ(fileKindAtPath(at("toFolder")), FileKind::directory);
  EXPECT_EQ(fileKindAtPath(at("toLink")), FileKind::directory);
}

TEST_F(FilesTest, KindIsAbsentForLinksToNowhere) {
  fs::create_symlink("nothing", at("dangling"));
  fs::create_symlink("loop", at("loop"));
  EXPECT_EQ(fileKindAtPath(at("dangling")), FileKind::absent);
  EXPECT_EQ(fileKindAtPath(at("loop")), FileKind::absent);
}

TEST_F(FilesTest, KindIsAbsentWhereNothingCanStand) {
  writeFile(at("file"), "");
  for (const auto& path : {at("missing"), at("file/below"), at("file/"), std::string(), at(std::string(300, 'x'))}) {
    EXPECT_EQ(fileKindAtPath(path), FileKind::absent) << path;
  }
}

TEST_F(FilesTest, KindCountsOtherThingsAsFiles) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_EQ(fileKindAtPath(at("pipe")), FileKind::file);
  EXPECT_EQ(fileKindAtPath("/dev/null"), FileKind::file);
}

// --- Making folders

TEST_F(FilesTest, DirectoryIsMadeWithThoseAboveIt) {
  EXPECT_EQ(createDirectory(at("a/b/c")), std::nullopt);
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
}

TEST_F(FilesTest, DirectoryThatExistsIsNoError) {
  writeFile(at("a/kept"), "x");
  fs::create_symlink("a", at("link"));
  EXPECT_EQ(createDirectory(at("a")), std::nullopt);
  EXPECT_EQ(createDirectory(at("a/")), std::nullopt);
  EXPECT_EQ(createDirectory(at("link")), std::nullopt);
  EXPECT_EQ(readFile(at("a/kept")), "x");
}

TEST_F(FilesTest, DirectoryThatCannotBeMadeIsDescribed) {
  writeFile(at("file"), "x");
  fs::create_symlink("nothing", at("dangling"));
  for (const auto& path :
       {at("file"), at("file/below"), at("dangling"), at(std::string(300, 'x')), std::string("/proc/self/folder")}) {
    const auto error = createDirectory(path);
    ASSERT_TRUE(error.has_value()) << path;
    EXPECT_FALSE(error->empty()) << path;
    EXPECT_NE(*error, "Success") << path;
  }
  EXPECT_EQ(createDirectory(at(std::string(300, 'x'))), "File name too long");
  EXPECT_EQ(readFile(at("file")), "x");
}

// --- Making and writing files

TEST_F(FilesTest, FileIsMadeEmpty) {
  EXPECT_TRUE(createFile(at("file")));
  EXPECT_TRUE(fs::is_regular_file(at("file")));
  EXPECT_EQ(fs::file_size(at("file")), 0u);
}

TEST_F(FilesTest, FileTakesThePlaceOfAnother) {
  writeFile(at("file"), std::string(10000, 'x'));
  EXPECT_TRUE(createFile(at("file")));
  EXPECT_EQ(fs::file_size(at("file")), 0u);
}

TEST_F(FilesTest, FileIsNotMadeWhereItCannotBe) {
  fs::create_directory(at("folder"));
  EXPECT_FALSE(createFile(at("folder")));
  EXPECT_FALSE(createFile(at("missing/file")));
  EXPECT_FALSE(createFile(at(std::string(300, 'x'))));
  EXPECT_FALSE(createFile(""));
  EXPECT_TRUE(fs::is_directory(at("folder")));
}

TEST_F(FilesTest, HandleOpensExistingFilesOnly) {
  std::string error;
  EXPECT_FALSE(FileHandle::forWriting(at("missing"), error));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(fs::exists(at("missing")));
  EXPECT_FALSE(FileHandle::forWriting(folder.path().string(), error));
  EXPECT_EQ(error, "Is a directory");
}

TEST_F(FilesTest, HandleWritesAtTheEnd) {
  writeFile(at("file"), "old ");
  std::string error;
  const auto handle = FileHandle::forWriting(at("file"), error);
  ASSERT_TRUE(handle);
  handle->write("new");
  handle->write("");
  handle->write(" and more");
  EXPECT_EQ(readFile(at("file")), "old new and more");
  // Emptied by another: what follows begins the file, without a hole.
  ASSERT_TRUE(createFile(at("file")));
  handle->write("again");
  EXPECT_EQ(readFile(at("file")), "again");
}

TEST_F(FilesTest, HandleWritesBytesOfAllKindsAndSizes) {
  createFile(at("file"));
  std::string error;
  const auto handle = FileHandle::forWriting(at("file"), error);
  const std::string bytes = std::string("\0\xFF\n", 3) + std::string(3 << 20, 'x');
  handle->write(bytes);
  EXPECT_TRUE(readFile(at("file")) == bytes);
}

TEST_F(FilesTest, HandleIsClosedWithItsLastCopy) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  createFile(at("file"));
  const auto before = descriptors();
  std::string error;
  auto handle = FileHandle::forWriting(at("file"), error);
  auto copy = handle;
  handle.reset();
  copy->write("x");
  EXPECT_EQ(readFile(at("file")), "x");
  EXPECT_EQ(descriptors(), before + 1);
  copy.reset();
  EXPECT_EQ(descriptors(), before);
}

TEST_F(FilesTest, HandleKeepsQuietAboutFailedWrites) {
  std::string error;
  const auto handle = FileHandle::forWriting("/dev/full", error);
  ASSERT_TRUE(handle);
  handle->write("lost");
  EXPECT_EQ(error, "");
}

TEST_F(FilesTest, HandleKeepsWritesOfManyThreadsWhole) {
  createFile(at("file"));
  std::string error;
  const auto handle = FileHandle::forWriting(at("file"), error);
  constexpr std::size_t THREADS = 8;
  constexpr std::size_t LINES = 500;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&, line = std::string(100 * (thread + 1), static_cast<char>('a' + thread)) + "\n"] {
      for (std::size_t i = 0; i < LINES; ++i) handle->write(line);
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<std::size_t> counts(THREADS);
  std::istringstream lines(readFile(at("file")));
  for (std::string line; std::getline(lines, line);) {
    const auto thread = static_cast<std::size_t>(line.at(0) - 'a');
    ASSERT_EQ(line, std::string(100 * (thread + 1), line[0]));
    ++counts.at(thread);
  }
  for (const std::size_t count : counts) EXPECT_EQ(count, LINES);
}

}  // namespace
}  // namespace vornet::platform
