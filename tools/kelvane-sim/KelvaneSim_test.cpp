#include "kelvane-sim/KelvaneSim.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "kelvane-sim/Places.hpp"
#include "kelvane-sim/SimTest.hpp"
#include "kelvane-sim/SqliteFile.hpp"

namespace vornet::sim {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using testing::rowsOf;
using testing::SimTest;
using testing::SOON;
using ::testing::UnorderedElementsAre;

class KelvaneSimTest : public SimTest {
 protected:
  std::map<std::string, int> rows() const { return rowsOf(files_.path("/container/sync.db")); }
  void settle() { ASSERT_TRUE(sim_->waitUntilIdle(SOON)); }
};

// --- Watching the folder
// ------------------------------------------------------------------------------------------------

TEST_F(KelvaneSimTest, FilesFoundAtTheStartBecomeSynced) {
  files_.makeFolder("/root/a/b");
  files_.write("/root/a/b/x", "1");
  start();
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2), Pair("/a/", 2), Pair("/a/b/", 2), Pair("/a/b/x", 2)));
}

TEST_F(KelvaneSimTest, ANewFileIsPendingUntilItsTransferEnds) {
  auto chosen = options();
  chosen.transferTime = 10min;
  start(chosen);
  files_.makeFolder("/root/a");
  files_.write("/root/a/x", "1");
  ASSERT_TRUE(sim_->waitForStatus("/a/x", CODE_PENDING, SOON));
  EXPECT_EQ(sim_->status("/a/"), CODE_PENDING);
  EXPECT_EQ(sim_->status("/"), CODE_PENDING);
  EXPECT_FALSE(sim_->waitUntilIdle(50ms));
}

TEST_F(KelvaneSimTest, AFolderTurnsOverGradually) {
  auto chosen = options();
  chosen.transferTime = 300ms;
  chosen.parallelTransfers = 1;
  for (const char* name : {"1", "2", "3", "4"}) files_.write(std::string("/root/") + name, "x");
  std::mutex mutex;
  std::vector<std::string> lines;
  chosen.notice = [&](const std::string& line) {
    const std::lock_guard lock(mutex);
    lines.push_back(line);
  };
  start(chosen);
  EXPECT_EQ(sim_->status("/"), CODE_PENDING);
  settle();
  EXPECT_EQ(sim_->status("/"), CODE_SYNCED);
  sim_->stop();
  EXPECT_THAT(lines, UnorderedElementsAre("synced     /1", "synced     /2", "synced     /3", "synced     /4"));
}

TEST_F(KelvaneSimTest, AChangedFileIsPendingAgain) {
  files_.write("/root/x", "1");
  auto chosen = options();
  chosen.assumeSynced = true;
  chosen.transferTime = 10min;
  start(chosen);
  EXPECT_EQ(sim_->status("/x"), CODE_SYNCED);
  std::ofstream(files_.path("/root/x"), std::ios::app) << "more";
  EXPECT_TRUE(sim_->waitForStatus("/x", CODE_PENDING, SOON));
}

TEST_F(KelvaneSimTest, AFileReplacedByRenamingIsPendingAgain) {
  files_.write("/root/x", "1");
  files_.write("/x.new", "2");
  auto chosen = options();
  chosen.assumeSynced = true;
  chosen.transferTime = 10min;
  start(chosen);
  fs::rename(files_.path("/x.new"), files_.path("/root/x"));
  EXPECT_TRUE(sim_->waitForStatus("/x", CODE_PENDING, SOON));
}

TEST_F(KelvaneSimTest, MovesInOutAndWithinAreFollowed) {
  files_.makeFolder("/root/a/deep");
  files_.write("/root/a/deep/x", "1");
  files_.makeFolder("/outside/b");
  files_.write("/outside/b/y", "2");
  start();
  settle();
  fs::rename(files_.path("/outside/b"), files_.path("/root/b"));
  settle();
  EXPECT_EQ(sim_->status("/b/y"), CODE_SYNCED);
  fs::rename(files_.path("/root/a"), files_.path("/root/b/a2"));
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2), Pair("/b/", 2), Pair("/b/a2/", 2), Pair("/b/a2/deep/", 2),
                                  Pair("/b/a2/deep/x", 2), Pair("/b/y", 2)));
  // Below its new place it is still watched.
  files_.write("/root/b/a2/deep/z", "3");
  settle();
  EXPECT_EQ(sim_->status("/b/a2/deep/z"), CODE_SYNCED);
  fs::rename(files_.path("/root/b"), files_.path("/outside/b"));
  files_.write("/outside/b/late", "4");
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2)));
  EXPECT_EQ(sim_->items(), 0U);
}

TEST_F(KelvaneSimTest, DeletedItemsAreForgotten) {
  files_.makeFolder("/root/a/b");
  files_.write("/root/a/b/x", "1");
  files_.write("/root/y", "1");
  start();
  settle();
  fs::remove(files_.path("/root/y"));
  fs::remove_all(files_.path("/root/a"));
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2)));
}

TEST_F(KelvaneSimTest, NestedFoldersMadeInQuickSuccessionAreAllSeen) {
  start();
  std::size_t items = 0;
  for (int i = 0; i < 20; ++i) {
    std::string path = "/root/n" + std::to_string(i);
    for (int depth = 0; depth < 10; ++depth) {
      files_.makeFolder(path);
      files_.write(path + "/f", "x");
      path += "/d";
      items += 2;
    }
  }
  settle();
  EXPECT_EQ(sim_->items(), items);
  EXPECT_EQ(rows().size(), items + 1);
  EXPECT_EQ(sim_->status("/n19/d/d/d/d/d/d/d/d/d/f"), CODE_SYNCED);
}

TEST_F(KelvaneSimTest, AFolderMadeAgainUnderAnOldNameIsWatched) {
  files_.makeFolder("/root/a");
  start();
  for (int i = 0; i < 20; ++i) {
    fs::rename(files_.path("/root/a"), files_.path("/root/old" + std::to_string(i)));
    files_.makeFolder("/root/a");
  }
  settle();
  files_.write("/root/a/x", "1");
  files_.write("/root/old7/y", "1");
  settle();
  EXPECT_EQ(sim_->status("/a/x"), CODE_SYNCED);
  EXPECT_EQ(sim_->status("/old7/y"), CODE_SYNCED);
}

TEST_F(KelvaneSimTest, MoreChangesThanTheQueueHoldsAreNotLost) {
  std::size_t limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0U);
  files_.makeFolder("/root/a");
  std::mutex gate;
  std::atomic<bool> overflow = false;
  auto chosen = options();
  chosen.notice = [&](const std::string& line) {
    if (line.find("too many changes") != std::string::npos) overflow = true;
    const std::lock_guard wait(gate);
  };
  start(chosen);
  std::unique_lock closed(gate);
  files_.write("/root/first", "1");
  ASSERT_TRUE(sim_->waitForStatus("/first", CODE_SYNCED, SOON));
  // Its next line holds the watcher up now, so that the queue fills.
  const std::string from = files_.path("/root/a/1");
  const std::string to = files_.path("/root/a/2");
  files_.write("/root/a/1", "1");
  for (std::size_t i = 0; i < limit; i += 2) {
    fs::rename(from, to);
    fs::rename(to, from);
  }
  files_.makeFolder("/root/late/deep");
  files_.write("/root/late/deep/x", "1");
  fs::remove(files_.path("/root/first"));
  closed.unlock();
  settle();
  EXPECT_TRUE(overflow);
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2), Pair("/a/", 2), Pair("/a/1", 2), Pair("/late/", 2),
                                  Pair("/late/deep/", 2), Pair("/late/deep/x", 2)));
  files_.write("/root/late/deep/y", "1");
  settle();
  EXPECT_EQ(sim_->status("/late/deep/y"), CODE_SYNCED);
}

TEST_F(KelvaneSimTest, LinksSpecialFilesAndNamesThatAreNotUtf8AreIgnored) {
  files_.makeFolder("/outside");
  files_.write("/outside/secret", "1");
  fs::create_directory_symlink(files_.path("/outside"), files_.path("/root/link"));
  files_.makeFolder("/root/bad\xFF");
  files_.write("/root/bad\xFF/x", "1");
  ASSERT_EQ(::mkfifo(files_.path("/root/pipe").c_str(), 0600), 0);
  start();
  fs::create_directory_symlink(files_.path("/outside"), files_.path("/root/link2"));
  files_.write("/root/\xC3", "1");
  files_.write("/outside/later", "1");
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2)));
}

TEST_F(KelvaneSimTest, ALinkInPlaceOfAFileTakesItAway) {
  files_.write("/root/x", "1");
  start();
  fs::create_symlink("/nowhere", files_.path("/link"));
  fs::rename(files_.path("/link"), files_.path("/root/x"));
  settle();
  EXPECT_FALSE(sim_->status("/x"));
}

TEST_F(KelvaneSimTest, NamesThatCannotBeSyncedAreNotSyncedWithAllBelow) {
  files_.makeFolder("/root/ok");
  files_.makeFolder("/root/no?/sub");
  files_.write("/root/no?/sub/x", "1");
  files_.write("/root/ok/x", "1");
  start();
  files_.write("/root/ok/~$x", "1");
  settle();
  EXPECT_THAT(rows(), UnorderedElementsAre(Pair("/", 0), Pair("/no?/", 0), Pair("/no?/sub/", 0), Pair("/no?/sub/x", 0),
                                           Pair("/ok/", 0), Pair("/ok/x", 2), Pair("/ok/~$x", 0)));
}

TEST_F(KelvaneSimTest, ComposedAndDecomposedNamesAreKeptApart) {
  files_.write("/root/\xC3\xA9", "1");
  files_.write("/root/e\xCC\x81.tmp", "1");
  start();
  settle();
  EXPECT_THAT(rows(), UnorderedElementsAre(Pair("/", 0), Pair("/\xC3\xA9", 2), Pair("/e\xCC\x81.tmp", 0)));
}

TEST_F(KelvaneSimTest, WhenTheFolderItselfGoesNothingIsLeftButItsRow) {
  files_.write("/root/x", "1");
  start();
  settle();
  fs::rename(files_.path("/root"), files_.path("/elsewhere"));
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2)));
}

TEST_F(KelvaneSimTest, NeverWritesIntoTheFolder) {
  files_.write("/root/x", "content");
  fs::permissions(files_.path("/root"), fs::perms::owner_read | fs::perms::owner_exec);
  const auto before = fs::last_write_time(files_.path("/root"));
  start();
  settle();
  sim_->stop();
  EXPECT_EQ(fs::last_write_time(files_.path("/root")), before);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(files_.path("/root"))) names.push_back(entry.path().filename());
  EXPECT_THAT(names, ElementsAre("x"));
  fs::permissions(files_.path("/root"), fs::perms::owner_all);
}

// --- The container

/// Every file of the container with its content.
std::map<std::string, std::string> contentOf(const std::string& container) {
  std::map<std::string, std::string> content;
  for (const auto& entry : fs::recursive_directory_iterator(container)) {
    std::ifstream file(entry.path(), std::ios::binary);
    content[entry.path()] = {std::istreambuf_iterator<char>(file), {}};
  }
  return content;
}

/// A container with files of the real sync application.
class ForeignContainer : public KelvaneSimTest {
 protected:
  ForeignContainer() { files_.makeFolder("/container"); }

  void writeForeignPreferences() const {
    files_.write("/container/VornetKelvane.plist",
                 "<plist version=\"1.0\"><dict><key>root_dir</key><string>/home/ann</string></dict></plist>");
  }
  void writeForeignDatabase(const std::string& name) const {
    SqliteFile file(files_.path("/container/" + name));
    file.execute("CREATE TABLE ea (path TEXT, status INTEGER); INSERT INTO ea VALUES ('/theirs', 2)");
  }
  void expectRefusal(const std::string& name) {
    const auto before = contentOf(files_.path("/container"));
    try {
      start();
      ADD_FAILURE() << "takes over " << name;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr("its " + name + " was written by another application"));
    }
    EXPECT_EQ(contentOf(files_.path("/container")), before);
  }
};

TEST_F(ForeignContainer, IsRefusedAndLeftAsItIs) {
  writeForeignPreferences();
  expectRefusal("VornetKelvane.plist");
  fs::remove(files_.path("/container/VornetKelvane.plist"));
  for (const std::string name : {"sync.db", "config.db"}) {
    writeForeignDatabase(name);
    expectRefusal(name);
    fs::remove(files_.path("/container/" + name));
  }
  files_.write("/container/sync.db", "no database");
  expectRefusal("sync.db");
  fs::remove(files_.path("/container/sync.db"));
  fs::create_symlink("nothing", files_.path("/container/sync.db"));
  expectRefusal("sync.db");
}

TEST_F(ForeignContainer, IsRefusedAlsoAfterTheStandInHasBeenThere) {
  start();
  sim_->stop();
  writeForeignPreferences();
  expectRefusal("VornetKelvane.plist");
  fs::remove(files_.path("/container/VornetKelvane.plist"));
  fs::remove(files_.path("/container/sync.db"));
  writeForeignDatabase("sync.db");
  expectRefusal("sync.db");
}

TEST_F(ForeignContainer, IsTakenOverByForceAndOwnFromThenOn) {
  writeForeignPreferences();
  for (const std::string name : {"sync.db", "config.db"}) writeForeignDatabase(name);
  auto chosen = options();
  chosen.force = true;
  files_.write("/root/a", "");
  start(chosen);
  ASSERT_TRUE(sim_->waitUntilIdle(SOON));
  EXPECT_EQ(rows().count("/theirs"), 0U);
  EXPECT_EQ(rows().count("/a"), 1U);
  sim_->stop();
  start();
}

TEST_F(KelvaneSimTest, StartsAgainInAContainerThatItMade) {
  start();
  sim_->stop();
  start();
  sim_.reset();
  fs::remove(files_.path("/container/VornetKelvane.plist"));
  files_.write("/container/sync.db", "");  // nothing is in it yet
  start();
}
// --------------------------------------------------------------------------------------------------------

TEST_F(KelvaneSimTest, TheContainerIsPrivateAndTellsTheRoot) {
  auto chosen = options();
  chosen.container = files_.path("/new/container/");
  chosen.root = files_.path("/./root/");
  start(chosen);
  EXPECT_EQ(sim_->root(), files_.path("/root"));
  EXPECT_EQ(sim_->container(), files_.path("/new/container"));
  struct stat info{};
  ASSERT_EQ(::stat(sim_->container().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0700U);
  SqliteFile config(sim_->container() + "/config.db");
  auto query = config.prepare("SELECT local_root FROM configuration");
  ASSERT_TRUE(query.step());
  EXPECT_EQ(query.text(0), sim_->root());
  EXPECT_TRUE(fs::exists(sim_->container() + "/VornetKelvane.plist"));
}

TEST_F(KelvaneSimTest, ThePreferencesComeAfterTheDatabases) {
  files_.write("/root/x", "1");
  // A folder in their way makes writing them fail: by then everything else is there.
  files_.makeFolder("/container/VornetKelvane.plist/occupied");
  EXPECT_THROW(start(), std::runtime_error);
  EXPECT_EQ(rows().count("/x"), 1U);
  EXPECT_TRUE(fs::exists(files_.path("/container/config.db")));
}

TEST_F(KelvaneSimTest, TheDefaultContainerFollowsTheEnvironment) {
  ::setenv("VORNET_GROUP_CONTAINERS", "/gc", 1);
  ::setenv("XDG_DATA_HOME", "/data", 1);
  ::setenv("HOME", "/home/ann", 1);
  EXPECT_EQ(groupContainerPath(), "/gc/com.vornet.KelvaneSync");
  ::unsetenv("VORNET_GROUP_CONTAINERS");
  EXPECT_EQ(groupContainerPath(), "/data/group-containers/com.vornet.KelvaneSync");
  ::unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(groupContainerPath(), "/home/ann/.local/share/group-containers/com.vornet.KelvaneSync");
}

TEST_F(KelvaneSimTest, WhatCannotBeStartedSaysWhy) {
  const auto failure = [&](const KelvaneSim::Options& chosen) -> std::string {
    try {
      KelvaneSim(chosen).start();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "started";
  };
  auto chosen = options();
  chosen.root = files_.path("/missing");
  EXPECT_THAT(failure(chosen), HasSubstr("cannot sync"));
  chosen = options();
  chosen.root = "/";
  EXPECT_THAT(failure(chosen), HasSubstr("whole file system"));
  chosen = options();
  chosen.container = files_.path("/root/inside");
  EXPECT_THAT(failure(chosen), HasSubstr("inside the synced folder"));
  fs::create_directory_symlink(files_.path("/root"), files_.path("/alias"));
  chosen.container = files_.path("/alias/inside");
  EXPECT_THAT(failure(chosen), HasSubstr("inside the synced folder"));
  chosen = options();
  chosen.state = files_.path("/root");
  EXPECT_THAT(failure(chosen), HasSubstr("inside the synced folder"));
  EXPECT_TRUE(fs::is_empty(files_.path("/root")));
  start();
  EXPECT_THAT(failure(options()), HasSubstr("another kelvane-sim"));
  chosen = options();
  chosen.container = files_.path("/second");
  chosen.port = sim_->port();
  EXPECT_THAT(failure(chosen), HasSubstr("cannot listen on 127.0.0.1:"));
  EXPECT_FALSE(fs::exists(files_.path("/second/sync.db")));
}

// --- Control by tests
// -------------------------------------------------------------------------------------------------------

TEST_F(KelvaneSimTest, APinnedStatusShowsInRepliesAndDatabaseUntilCleared) {
  files_.makeFolder("/root/a");
  files_.write("/root/a/x", "1");
  start();
  settle();
  sim_->setStatus("/a/x", 0);
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 0), Pair("/a/", 0), Pair("/a/x", 0)));
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/a/"})").as_object().at("/a/x").as_int64(), 0);
  sim_->clearStatus("/a/x");
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2), Pair("/a/", 2), Pair("/a/x", 2)));
}

TEST_F(KelvaneSimTest, StopsAndStartsAgainWithTheSameAndWithANewObject) {
  files_.write("/root/gone", "1");
  files_.write("/root/x", "1");
  start();
  settle();
  const auto port = sim_->port();
  sim_->stop();
  sim_->stop();
  EXPECT_FALSE(post("get_icons_for_folder", R"({"dir_name":"/"})"));
  EXPECT_FALSE(sim_->waitUntilIdle(10ms));
  fs::remove(files_.path("/root/gone"));
  files_.write("/root/y", "1");
  sim_->start();
  settle();
  EXPECT_THAT(rows(), ElementsAre(Pair("/", 2), Pair("/x", 2), Pair("/y", 2)));
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/"})").as_object().size(), 2U);
  sim_->stop();
  auto chosen = options();
  chosen.port = port;
  start(chosen);
  EXPECT_EQ(sim_->port(), port);
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/"})").as_object().size(), 2U);
}

TEST_F(KelvaneSimTest, RequestsAreRecordedAndCanBeWaitedFor) {
  start();
  EXPECT_FALSE(sim_->waitForRequest("mac_populate_menu", 10ms));
  post("get_icons_for_folder", R"({"dir_name":"/"})");
  post("mac_populate_menu", R"( {"paths": ["/"]} )");
  const auto request = sim_->waitForRequest("mac_populate_menu", SOON);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->method, "POST");
  EXPECT_EQ(request->target, "/mac_populate_menu");
  EXPECT_EQ(request->header("content-type"), "application/json");
  EXPECT_EQ(request->header("absent"), "");
  EXPECT_EQ(request->body, R"( {"paths": ["/"]} )");
  EXPECT_EQ(sim_->requests().size(), 2U);
  sim_->clearRequests();
  EXPECT_TRUE(sim_->requests().empty());
}

TEST_F(KelvaneSimTest, RepliesStayConsistentWhileTheFolderChanges) {
  auto chosen = options();
  chosen.transferTime = 1ms;
  chosen.parallelTransfers = 1000;
  start(chosen);
  std::thread writer([&] {
    for (int i = 0; i < 300; ++i) {
      const std::string folder = "/root/d" + std::to_string(i % 5);
      files_.makeFolder(folder);
      files_.write(folder + "/x" + std::to_string(i), "1");
      if (i % 7 == 0) fs::remove_all(files_.path(folder));
    }
  });
  httplib::Client client("127.0.0.1", sim_->port());
  client.set_keep_alive(true);
  for (int i = 0; i < 100; ++i) {
    const auto reply = client.Post("/get_icons_for_folder", R"({"dir_name":"/"})", "application/json");
    ASSERT_TRUE(reply);
    const boost::json::value parsed = boost::json::parse(reply->body);
    for (const auto& entry : parsed.as_object()) {
      EXPECT_GE(entry.value().as_int64(), 1);
      EXPECT_LE(entry.value().as_int64(), 2);
    }
  }
  writer.join();
  settle();
  std::size_t onDisk = 0;
  for ([[maybe_unused]] const auto& e : fs::recursive_directory_iterator(files_.path("/root"))) ++onDisk;
  EXPECT_EQ(sim_->items(), onDisk);
  EXPECT_EQ(rows().size(), onDisk + 1);
}

}  // namespace
}  // namespace vornet::sim
