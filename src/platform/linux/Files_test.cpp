#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/Foundation.hpp"
#include "support/ChildProcess.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::writeFile;

class FilesTest : public testing::Test {
 protected:
  std::string at(std::string_view name) const { return folder / name; }

  /// The file "file", open for writing.
  FileHandle openFile() const {
    std::string error;
    return FileHandle::forWriting(at("file"), error).value();
  }
  /// A new one.
  FileHandle newFile() const {
    EXPECT_TRUE(createFile(at("file")));
    return openFile();
  }

  test::TemporaryFolder folder;
};

// --- The kind of file at a path

TEST_F(FilesTest, KindIsThatOfTheThingBehindAllLinks) {
  writeFile(at("file"), "");
  fs::create_directory(at("folder"));
  fs::create_symlink("file", at("link to a file"));
  fs::create_symlink("folder", at("link to a folder"));
  fs::create_symlink("link to a folder", at("link to a link"));
  fs::create_symlink("nothing", at("link to nothing"));
  fs::create_symlink("loop", at("loop"));
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  const std::pair<FileKind, std::vector<std::string>> kinds[] = {
      {FileKind::file, {at("file"), at("link to a file"), at("pipe"), "/dev/null"}},
      {FileKind::directory, {at("folder"), at("folder/"), "/", at("link to a folder"), at("link to a link")}},
      {FileKind::absent,
       {at("missing"), at("file/below"), at("file/"), "", at(std::string(300, 'x')), at("link to nothing"),
        at("loop")}}};
  for (const auto& [kind, paths] : kinds)
    for (const auto& path : paths) EXPECT_EQ(fileKindAtPath(path), kind) << path;
}

// --- Making folders

TEST_F(FilesTest, DirectoryIsMadeWithThoseAboveIt) {
  EXPECT_EQ(createDirectory(at("a/b/c")), std::nullopt);
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
}

TEST_F(FilesTest, DirectoryThatExistsIsNoError) {
  writeFile(at("a/kept"), "x");
  fs::create_symlink("a", at("link"));
  for (const char* name : {"a", "a/", "link"}) EXPECT_EQ(createDirectory(at(name)), std::nullopt) << name;
  EXPECT_EQ(readFile(at("a/kept")), "x");
}

TEST_F(FilesTest, DirectoryThatCannotBeMadeIsDescribed) {
  writeFile(at("file"), "x");
  fs::create_symlink("nothing", at("dangling"));
  for (const auto& path :
       {at("file"), at("file/below"), at("dangling"), at(std::string(300, 'x')), std::string("/proc/self/folder")}) {
    EXPECT_THAT(createDirectory(path), testing::Optional(testing::Not(testing::AnyOf("", "Success")))) << path;
  }
  EXPECT_EQ(createDirectory(at(std::string(300, 'x'))), "File name too long");
  EXPECT_EQ(readFile(at("file")), "x");
}

// --- Making and writing files

TEST_F(FilesTest, FileIsANewOneSoThatAProcessThatHasTheOldOneOpenKeepsThat) {
  createFile(at("file"));
  test::Gate begun, replaced;
  test::ChildProcess first([&] {
    const auto old = openFile();
    old.write("first run\n");
    begun.open();
    replaced.pass();
    old.write("last line of the first run\n");
    return 0;
  });
  begun.pass();
  EXPECT_TRUE(createFile(at("file")));
  replaced.open();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(readFile(at("file")), "");
}

TEST_F(FilesTest, FileThatThisProcessWritesIsEmptied) {
  std::optional handle = newFile();
  handle->write("before\n");
  ASSERT_TRUE(createFile(at("file")));
  handle->write("after\n");
  EXPECT_EQ(readFile(at("file")), "after\n");

  fs::create_hard_link(at("file"), at("kept"));
  handle.reset();
  ASSERT_TRUE(createFile(at("file"))) << "closed, it is replaced";
  EXPECT_EQ(readFile(at("kept")), "after\n");
}

TEST_F(FilesTest, FileIsForItsOwnerAloneWhateverWasThereAndWhateverTheMask) {
  writeFile(at("file"), "x");
  fs::permissions(at("file"), fs::perms::all);
  for (const mode_t mask : {0000u, 0022u, 0777u}) {
    const mode_t before = ::umask(mask);
    const bool made = createFile(at("file"));
    ::umask(before);
    EXPECT_TRUE(made) << mask;
    EXPECT_EQ(fs::status(at("file")).permissions(), fs::perms::owner_read | fs::perms::owner_write) << mask;
  }
}

TEST_F(FilesTest, FileIsMadeEmptyAlsoInPlaceOfAnotherOrOfALinkWhoseTargetIsLeft) {
  writeFile(at("large"), std::string(10'000, 'x'));
  writeFile(at("target"), "kept");
  const auto before = fs::last_write_time(at("target"));
  fs::create_symlink("target", at("link"));
  fs::create_symlink("nowhere", at("dangling"));
  fs::create_hard_link(at("target"), at("second name"));
  for (const char* name : {"new", "large", "link", "dangling", "second name"}) {
    EXPECT_TRUE(createFile(at(name))) << name;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(at(name)))) << name;
    EXPECT_EQ(fs::file_size(at(name)), 0u) << name;
  }
  EXPECT_EQ(readFile(at("target")), "kept");
  EXPECT_EQ(fs::last_write_time(at("target")), before);
  EXPECT_FALSE(fs::exists(at("nowhere")));
}

TEST_F(FilesTest, FileTakesThePlaceOfAPipeWithoutWaitingForItsReader) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  auto made = std::async(std::launch::async, [path = at("pipe")] { return createFile(path); });
  const bool inTime = test::isDoneInTime(made);
  if (!inTime) ::close(::open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK));  // lets it go
  EXPECT_TRUE(inTime);
  EXPECT_TRUE(made.get());
  EXPECT_TRUE(fs::is_regular_file(at("pipe")));
}

TEST_F(FilesTest, FileTakesThePlaceOfSomebodyElses) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to make somebody else's file";
  constexpr uid_t OWNER = 1234;
  ASSERT_EQ(::chown(folder.path().c_str(), OWNER, OWNER), 0);
  writeFile(at("file"), "root's");
  ::chmod(at("file").c_str(), 0600);
  test::ChildProcess owner([&] {
    if (::setgid(OWNER) != 0 || ::setuid(OWNER) != 0) return 2;
    return createFile(at("file")) ? 0 : 1;
  });
  EXPECT_EQ(owner.wait(), 0);
  struct stat found{};
  ASSERT_EQ(::lstat(at("file").c_str(), &found), 0);
  EXPECT_EQ(found.st_uid, OWNER);
  EXPECT_EQ(found.st_size, 0);
}

TEST_F(FilesTest, FileThatCannotBeReplacedIsEmptiedWhenItIsTheUsersOwn) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  constexpr uid_t USER = 1234;
  for (const char* name : {"own", "other's", "target"}) {
    writeFile(at(name), "old");
    ::chmod(at(name).c_str(), 0666);
  }
  ASSERT_EQ(::chown(at("own").c_str(), USER, USER), 0);
  ASSERT_EQ(::chown(at("target").c_str(), USER, USER), 0);
  fs::create_symlink("target", at("link"));
  ::chmod(folder.path().c_str(), 0755);  // root's: the user may neither add nor remove names here
  test::ChildProcess user([&] {
    if (::setgid(USER) != 0 || ::setuid(USER) != 0) return 100;
    std::string error;
    return (createFile(at("own")) ? 1 : 0) + (createFile(at("other's")) ? 2 : 0) + (createFile(at("link")) ? 4 : 0) +
           (FileHandle::forWriting(at("other's"), error) ? 8 : 0) + (error == "Operation not permitted" ? 16 : 0);
  });
  EXPECT_EQ(user.wait(), 1 + 16);
  EXPECT_EQ(readFile(at("own")), "");
  EXPECT_EQ(readFile(at("other's")), "old");
  EXPECT_EQ(readFile(at("target")), "old");
}

TEST_F(FilesTest, FileIsNotMadeWhereItCannotBe) {
  fs::create_directory(at("folder"));
  for (const auto& path : {at("folder"), at("missing/file"), at(std::string(300, 'x')), std::string()})
    EXPECT_FALSE(createFile(path)) << path;
  EXPECT_TRUE(fs::is_directory(at("folder")));
}

TEST_F(FilesTest, HandleWritesAtTheEnd) {
  writeFile(at("file"), "old ");
  const auto file = openFile();
  file.write("new");
  file.write("");
  file.write(" and more");
  EXPECT_EQ(readFile(at("file")), "old new and more");
  // Emptied by another: what follows begins the file, without a hole.
  fs::resize_file(at("file"), 0);
  file.write("again");
  EXPECT_EQ(readFile(at("file")), "again");
}

TEST_F(FilesTest, HandleWritesBytesOfAllKindsAndSizes) {
  const auto file = newFile();
  const std::string bytes = std::string("\0\xFF\n", 3) + std::string(3 << 20, 'x');
  file.write(bytes);
  EXPECT_TRUE(readFile(at("file")) == bytes);
}

TEST_F(FilesTest, HandleIsClosedWithItsLastCopy) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  createFile(at("file"));
  const auto before = descriptors();
  std::optional handle = openFile();
  auto copy = handle;
  handle.reset();
  copy->write("x");
  EXPECT_EQ(readFile(at("file")), "x");
  EXPECT_EQ(descriptors(), before + 1);
  copy.reset();
  EXPECT_EQ(descriptors(), before);
}

TEST_F(FilesTest, HandleOpensExistingRegularFilesOnly) {
  writeFile(at("file"), "kept");
  fs::create_symlink("file", at("link"));
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  const std::pair<std::string, std::string> cases[] = {{at("missing"), "No such file or directory"},
                                                       {folder.path(), "Is a directory"},
                                                       {at("link"), "Too many levels of symbolic links"},
                                                       {at("pipe"), "No such device or address"},
                                                       {"/dev/null", "Operation not supported"}};
  for (const auto& [path, reason] : cases) {
    std::string error;
    auto opened = std::async(std::launch::async,
                             [&error, &opening = path] { return FileHandle::forWriting(opening, error).has_value(); });
    if (!test::isDoneInTime(opened)) ::close(::open(path.c_str(), O_RDONLY | O_NONBLOCK));  // lets it go
    EXPECT_FALSE(opened.get()) << path;
    EXPECT_EQ(error, reason) << path;
  }
  EXPECT_FALSE(fs::exists(at("missing")));
  const int reader = ::open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  std::string error;
  EXPECT_FALSE(FileHandle::forWriting(at("pipe"), error)) << "a pipe with a reader";
  EXPECT_EQ(error, "Operation not supported");
  ::close(reader);
}

/// Writes `texts` while no file of this process can grow beyond `size`, as on a full disk.
void writeOnFullDisk(const FileHandle& file, rlim_t size, const std::vector<std::string>& texts) {
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{size, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &small);
  auto* const action = std::signal(SIGXFSZ, SIG_IGN);
  for (const auto& text : texts) file.write(text);
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, action);
}

TEST_F(FilesTest, HandleBeginsALineAfterOneThatAFullDiskCut) {
  const auto file = newFile();
  writeOnFullDisk(file, 10, {"first\n", "second\n", "third\n"});
  EXPECT_EQ(readFile(at("file")), "first\nseco");
  file.write("fourth\n");
  file.write("fifth\n");
  EXPECT_EQ(readFile(at("file")), "first\nseco\nfourth\nfifth\n");
}

TEST_F(FilesTest, HandleBeginsALineAfterOneThatWasCutMoreThanOnce) {
  const auto file = newFile();
  for (const rlim_t size : {3u, 4u, 6u}) writeOnFullDisk(file, size, {"long\n"});
  // "lon" was cut; the line feed found room, then nothing did; then a letter did.
  EXPECT_EQ(readFile(at("file")), "lon\nlo");
  file.write("end\n");
  EXPECT_EQ(readFile(at("file")), "lon\nlo\nend\n");
}

TEST_F(FilesTest, HandleLeavesNoEmptyLineWhereNothingWasCut) {
  const auto file = newFile();
  writeOnFullDisk(file, 6, {"first\n", "second\n"});
  file.write("third\n");
  writeOnFullDisk(file, 14, {"4\n5\n"});  // room for a whole line of two
  file.write("6\n");
  EXPECT_EQ(readFile(at("file")), "first\nthird\n4\n6\n");
}

TEST_F(FilesTest, HandleKeepsTheLinesOfManyThreadsApartAfterAFullDisk) {
  const std::string line = std::string(200'000, 'x') + "\n";  // so that its writing takes a while
  std::size_t wrong = 0;
  for (int round = 0; round < 30; ++round) {
    const auto file = newFile();
    writeOnFullDisk(file, 10, {"first\nsecond\n"});
    test::inParallel(3, [&](std::size_t) { file.write(line); });
    if (readFile(at("file")) != "first\nseco\n" + line + line + line) ++wrong;
  }
  EXPECT_EQ(wrong, 0u);
}

TEST_F(FilesTest, HandleKeepsWritesOfManyThreadsWhole) {
  const auto file = newFile();
  constexpr std::size_t THREADS = 8;
  constexpr std::size_t LINES = 500;
  test::inParallel(THREADS, [&](std::size_t thread) {
    const auto line = std::string(100 * (thread + 1), static_cast<char>('a' + thread)) + "\n";
    for (std::size_t i = 0; i < LINES; ++i) file.write(line);
  });
  std::vector<std::size_t> counts(THREADS);
  std::istringstream lines(readFile(at("file")));
  for (std::string line; std::getline(lines, line);) {
    const auto thread = static_cast<std::size_t>(line.at(0) - 'a');
    ASSERT_EQ(line, std::string(100 * (thread + 1), line[0]));
    ++counts.at(thread);
  }
  EXPECT_EQ(counts, std::vector(THREADS, LINES));
}

}  // namespace
}  // namespace vornet::platform
