#include "kelvane-sim/SyncedFolder.hpp"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support/TemporaryFolder.hpp"

namespace vornet::sim {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::TemporaryFolder;
using test::writeFile;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Pair;

const SyncedFolder::Clock::time_point START{};
const FoundItem FOLDER{.folder = true};

FoundItem file(std::int64_t size = 0) {
  return {.stamp = {.size = size}};
}

/// A listing with the root and `items`.
Listing listing(Listing items) {
  items.emplace("", FOLDER);
  return items;
}

int codeOf(const SyncedFolder& folder, const char* path) {
  const auto item = folder.find(path);
  return item ? item->code : -1;
}

TEST(SyncedFolder, FilesAreSyncedInTheOrderTheyCameAFewAtATime) {
  SyncedFolder folder(100ms, 2);
  folder.update(listing({{"/b", file()}, {"/c", file()}}), false);
  folder.update(listing({{"/a", file()}, {"/b", file()}, {"/c", file()}}), false);
  EXPECT_EQ(folder.transfer(START), START + 100ms);
  EXPECT_EQ(folder.transfer(START + 99ms), START + 100ms);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 1), Pair("/a", 1), Pair("/b", 1), Pair("/c", 1)));
  EXPECT_EQ(folder.transfer(START + 100ms), START + 200ms);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 1), Pair("/a", 1), Pair("/b", 2), Pair("/c", 2)));
  EXPECT_EQ(folder.transfer(START + 200ms), std::nullopt);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 2), Pair("/a", 2), Pair("/b", 2), Pair("/c", 2)));
}

TEST(SyncedFolder, AFileChangedDuringItsTransferIsTransferredAgain) {
  SyncedFolder folder(100ms, 2);
  folder.update(listing({{"/a", file()}}), false);
  folder.transfer(START);
  folder.update(listing({{"/a", file(1)}}), false);
  folder.update(listing({{"/a", file(2)}}), false);
  EXPECT_EQ(folder.transfer(START + 60ms), START + 160ms);
  folder.transfer(START + 100ms);
  EXPECT_EQ(codeOf(folder, "/a"), CODE_PENDING);
  EXPECT_EQ(folder.transfer(START + 160ms), std::nullopt);
  EXPECT_EQ(codeOf(folder, "/a"), CODE_SYNCED);
}

TEST(SyncedFolder, ARemovedFileNeedsNoTransfer) {
  SyncedFolder folder(100ms, 1);
  folder.update(listing({{"/a", file()}, {"/b", file()}}), false);
  folder.transfer(START);
  folder.update(listing({}), false);
  EXPECT_EQ(folder.transfer(START), std::nullopt);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", CODE_SYNCED)));
}

TEST(SyncedFolder, FilesTakenForSyncedAreNotTransferredUntilTheyChange) {
  SyncedFolder folder(100ms, 1);
  folder.update(listing({{"/a", file()}}), true);
  EXPECT_EQ(folder.transfer(START), std::nullopt);
  EXPECT_EQ(codeOf(folder, "/a"), CODE_SYNCED);
  folder.update(listing({{"/a", file(1)}}), false);
  EXPECT_EQ(codeOf(folder, "/a"), CODE_PENDING);
}

TEST(SyncedFolder, WithoutTransferTimeEverythingIsSyncedAtOnce) {
  SyncedFolder folder(0ms, 1);
  folder.update(listing({{"/a", file()}, {"/b", file()}}), false);
  EXPECT_EQ(folder.transfer(START), std::nullopt);
  EXPECT_EQ(codeOf(folder, "/"), CODE_SYNCED);
}

TEST(SyncedFolder, AFolderHasTheWorstCodeOfWhatIsInIt) {
  SyncedFolder folder(100ms, 1);
  Listing items = listing({{"/a", FOLDER}, {"/a/b", FOLDER}, {"/a/b/x", file()}, {"/a.b", FOLDER}});
  folder.update(items, true);
  EXPECT_EQ(codeOf(folder, "/"), CODE_SYNCED);
  items["/a/b/y"] = file();
  folder.update(items, false);
  EXPECT_THAT(folder.rows(), IsSupersetOf({Pair("/", 1), Pair("/a/", 1), Pair("/a/b/", 1), Pair("/a.b/", 2)}));
  items["/a/z.tmp"] = file();
  folder.update(items, false);
  EXPECT_THAT(folder.rows(), IsSupersetOf({Pair("/", 0), Pair("/a/", 0), Pair("/a/b/", 1), Pair("/a.b/", 2)}));
  items.erase("/a/z.tmp");
  items.erase("/a/b/y");
  folder.update(items, false);
  EXPECT_EQ(codeOf(folder, "/"), CODE_SYNCED);
}

TEST(SyncedFolder, NamesThatCannotBeSyncedAreNotSyncedNorWhatIsBelow) {
  for (const std::string path : {"/~$a", "/a.tmp", "/a?", "/a\"", "/a|b"}) {
    SyncedFolder folder(0ms, 1);
    folder.update(listing({{path, FOLDER}, {path + "/b", FOLDER}, {path + "/b/x", file()}}), false);
    folder.transfer(START);
    EXPECT_THAT(folder.rows(),
                ElementsAre(Pair("/", 0), Pair(path + "/", 0), Pair(path + "/b/", 0), Pair(path + "/b/x", 0)));
  }
  SyncedFolder folder(0ms, 1);
  folder.update(listing({{"/.a", file()}, {"/100% & 'b'", file()}, {"/a.tmpx", file()}, {"/~a", file()}}), false);
  folder.transfer(START);
  EXPECT_EQ(codeOf(folder, "/"), CODE_SYNCED);
}

TEST(SyncedFolder, APinShowsThroughAndFoldersFollow) {
  SyncedFolder folder(0ms, 1);
  folder.pin("/a/x", CODE_NOT_SYNCED);
  EXPECT_FALSE(folder.find("/a/x"));
  folder.update(listing({{"/a", FOLDER}, {"/a/x", file()}}), true);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 0), Pair("/a/", 0), Pair("/a/x", 0)));
  folder.pin("/a/", CODE_PENDING);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 1), Pair("/a/", 1), Pair("/a/x", 0)));
  folder.pin("/a", 7);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 2), Pair("/a/", 7), Pair("/a/x", 0)));
}

TEST(SyncedFolder, ChildrenAreWhatIsDirectlyInAFolder) {
  SyncedFolder folder(0ms, 1);
  Listing items = listing({{"/a", FOLDER}, {"/a/b", FOLDER}});
  for (const char* path : {"/a!", "/a/b.c", "/a/b/x", "/a/b0", "/a0"}) items[path] = file();
  folder.update(items, true);
  EXPECT_THAT(*folder.children("/a/"), ElementsAre(Pair("/a/b", 2), Pair("/a/b.c", 2), Pair("/a/b0", 2)));
  EXPECT_THAT(*folder.children("/"), ElementsAre(Pair("/a", 2), Pair("/a!", 2), Pair("/a0", 2)));
  EXPECT_FALSE(folder.children("/a0/"));
  EXPECT_FALSE(folder.children("/gone/"));
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 2), Pair("/a!", 2), Pair("/a/", 2), Pair("/a/b.c", 2),
                                         Pair("/a/b/", 2), Pair("/a/b/x", 2), Pair("/a/b0", 2), Pair("/a0", 2)));
}

TEST(SyncedFolder, PathsThatNameNothingAreUnknown) {
  SyncedFolder folder(0ms, 1);
  folder.update(listing({{"/a", FOLDER}, {"/a/x", file()}, {"/caf\xC3\xA9", file()}}), true);
  for (const char* path : {"a", "//", "/a//", "/a//x", "/a/x/", "/a/../a", "/.", "/b", "/cafe\xCC\x81"})
    EXPECT_FALSE(folder.find(path)) << path;
  EXPECT_TRUE(folder.find("/a/"));
}

TEST(SyncedFolder, AFileTakesTheFoldersPlace) {
  SyncedFolder folder(0ms, 1);
  folder.update(listing({{"/a", FOLDER}, {"/a/x", file()}}), true);
  folder.update(listing({{"/a", file()}}), false);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 1), Pair("/a", 1)));
  folder.update(listing({{"/a", FOLDER}}), false);
  EXPECT_THAT(folder.rows(), ElementsAre(Pair("/", 2), Pair("/a/", 2)));
}

TEST(SyncedFolder, ListsFoldersAndFilesWhoseNamesAreUtf8) {
  const TemporaryFolder disk;
  const std::string root = disk / "root";
  writeFile(root + "/a/b/x", "1");
  writeFile(root + "/caf\xC3\xA9", "");
  writeFile(root + "/bad\xFF/x", "1");
  writeFile(root + "/\xED\xA0\x80", "");  // a surrogate
  writeFile(disk / "outside/secret", "1");
  fs::create_directory_symlink(disk / "outside", root + "/link");
  ASSERT_EQ(::mkfifo((root + "/pipe").c_str(), 0600), 0);
  std::vector<std::pair<std::string, bool>> found;
  for (const auto& [path, item] : list(root)) found.emplace_back(path, item.folder);
  EXPECT_THAT(found, ElementsAre(Pair("", true), Pair("/a", true), Pair("/a/b", true), Pair("/a/b/x", false),
                                 Pair("/caf\xC3\xA9", false)));
}

TEST(SyncedFolder, RecognisesAChangedFileByItsStamp) {
  const TemporaryFolder disk;
  writeFile(disk / "x", "1");
  const Listing before = list(disk.path());
  EXPECT_EQ(list(disk.path()), before);
  writeFile(disk / "x", "12");
  const Listing after = list(disk.path());
  EXPECT_NE(after, before);
  writeFile(disk / "new", "12");
  fs::last_write_time(disk / "new", fs::last_write_time(disk / "x"));
  fs::rename(disk / "new", disk / "x");
  EXPECT_NE(list(disk.path()), after);
}

}  // namespace
}  // namespace vornet::sim
