#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <optional>
#include <sstream>
#include <thread>
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

  /// A new file "file", open for writing.
  FileHandle newFile() const {
    EXPECT_TRUE(createFile(at("file")));
    std::string error;
    return FileHandle::forWriting(at("file"), error).value();
  }

  test::TemporaryFolder folder;
};

// --- The kind of file at a path

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

TEST_F(FilesTest, KindIsAbsentWhereNothingCanBe) {
  writeFile(at("file"), "");
  for (const auto& path : {at("missing"), at("file/below"), at("file/"), std::string(), at(std::string(300, 'x'))})
    EXPECT_EQ(fileKindAtPath(path), FileKind::absent) << path;
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

TEST_F(FilesTest, FileIsMadeEmptyAlsoInPlaceOfAnother) {
  for (const std::size_t before : {0u, 10'000u}) {
    if (before > 0) writeFile(at("file"), std::string(before, 'x'));
    EXPECT_TRUE(createFile(at("file")));
    EXPECT_TRUE(fs::is_regular_file(at("file")));
    EXPECT_EQ(fs::file_size(at("file")), 0u);
  }
}

TEST_F(FilesTest, FileIsANewOneSoThatAProcessThatHasTheOldOneOpenKeepsThat) {
  createFile(at("file"));
  test::Gate begun, replaced;
  test::ChildProcess first([&] {
    std::string error;
    const auto old = FileHandle::forWriting(at("file"), error);
    if (!old) return 1;
    old->write("first run\n");
    begun.open();
    replaced.pass();
    old->write("last line of the first run\n");
    return 0;
  });
  begun.pass();
  EXPECT_TRUE(createFile(at("file")));
  replaced.open();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(readFile(at("file")), "");
}

TEST_F(FilesTest, FileThatThisProcessWritesIsEmptied) {
  createFile(at("file"));
  std::string error;
  auto handle = FileHandle::forWriting(at("file"), error);
  ASSERT_TRUE(handle);
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
  const auto modeOf = [](const std::string& path) { return fs::status(path).permissions(); };
  writeFile(at("file"), "x");
  fs::permissions(at("file"), fs::perms::all);
  for (const mode_t mask : {0000u, 0022u, 0777u}) {
    const mode_t before = ::umask(mask);
    const bool made = createFile(at("file"));
    ::umask(before);
    EXPECT_TRUE(made) << mask;
    EXPECT_EQ(modeOf(at("file")), fs::perms::owner_read | fs::perms::owner_write) << mask;
  }
}

TEST_F(FilesTest, FileTakesThePlaceOfALinkAndLeavesItsTarget) {
  writeFile(at("target"), "kept");
  const auto before = fs::last_write_time(at("target"));
  fs::create_symlink("target", at("link"));
  fs::create_symlink("nowhere", at("dangling"));
  fs::create_hard_link(at("target"), at("second name"));
  for (const char* name : {"link", "dangling", "second name"}) {
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
  fs::resize_file(at("file"), 0);
  handle->write("again");
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

TEST_F(FilesTest, HandleOpensNeitherLinksNorPipesNorDevices) {
  writeFile(at("file"), "kept");
  fs::create_symlink("file", at("link"));
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  const std::pair<std::string, std::string> cases[] = {{at("link"), "Too many levels of symbolic links"},
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
  const int reader = ::open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  std::string error;
  EXPECT_FALSE(FileHandle::forWriting(at("pipe"), error)) << "a pipe with a reader";
  EXPECT_EQ(error, "Operation not supported");
  ::close(reader);
}

/// Lets no file of this process grow beyond a size, as a full disk does, while it lives.
class FullDisk {
 public:
  explicit FullDisk(rlim_t size) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit small{size, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
  }
  ~FullDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, action_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before_{};
  void (*action_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

TEST_F(FilesTest, HandleBeginsALineAfterOneThatAFullDiskCut) {
  const auto file = newFile();
  {
    const FullDisk full(10);
    file.write("first\n");
    file.write("second\n");
    file.write("third\n");
    EXPECT_EQ(readFile(at("file")), "first\nseco");
  }
  file.write("fourth\n");
  file.write("fifth\n");
  EXPECT_EQ(readFile(at("file")), "first\nseco\nfourth\nfifth\n");
}

TEST_F(FilesTest, HandleBeginsALineAfterOneThatWasCutMoreThanOnce) {
  const auto file = newFile();
  for (const rlim_t size : {3u, 4u, 6u}) {
    const FullDisk full(size);
    file.write("long\n");
  }
  // "lon" was cut; the line feed found room, then nothing did; then a letter did.
  EXPECT_EQ(readFile(at("file")), "lon\nlo");
  file.write("end\n");
  EXPECT_EQ(readFile(at("file")), "lon\nlo\nend\n");
}

TEST_F(FilesTest, HandleLeavesNoEmptyLineWhereNothingWasCut) {
  const auto file = newFile();
  {
    const FullDisk full(6);
    file.write("first\n");
    file.write("second\n");
  }
  file.write("third\n");
  {
    const FullDisk full(14);
    file.write("4\n5\n");  // room for a whole line of two
  }
  file.write("6\n");
  EXPECT_EQ(readFile(at("file")), "first\nthird\n4\n6\n");
}

TEST_F(FilesTest, HandleKeepsTheLinesOfManyThreadsApartAfterAFullDisk) {
  constexpr std::size_t THREADS = 3;
  constexpr std::size_t ROUNDS = 30;
  const std::string line = std::string(200'000, 'x') + "\n";  // so that its writing takes a while
  std::optional<FileHandle> handle;
  std::atomic<std::size_t> round = 0;
  std::atomic<std::size_t> written = 0;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < THREADS; ++i) {
    threads.emplace_back([&] {
      for (std::size_t next = 1; next <= ROUNDS; ++next) {
        while (round < next) std::this_thread::yield();
        handle->write(line);
        ++written;
      }
    });
  }
  std::size_t wrong = 0;
  for (std::size_t next = 1; next <= ROUNDS; ++next) {
    handle.reset();
    createFile(at("file"));
    std::string error;
    handle = FileHandle::forWriting(at("file"), error);
    {
      const FullDisk full(10);
      handle->write("first\nsecond\n");
    }
    round = next;
    while (written < next * THREADS) std::this_thread::yield();
    if (readFile(at("file")) != "first\nseco\n" + line + line + line) ++wrong;
  }
  for (auto& thread : threads) thread.join();
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
  for (const std::size_t count : counts) EXPECT_EQ(count, LINES);
}

}  // namespace
}  // namespace vornet::platform
