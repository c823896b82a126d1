// The wait for a folder's first badges, for file managers that can wait before they draw its items.
#include <string>

#include "PluginTest.hpp"
#include "dbus/Interface.hpp"

namespace vornet::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class PluginFirstBadges : public PluginTest {
 protected:
  PluginFirstBadges() {
    awaitFor(hours(1));
    startExtension();
    extension->interfaceVersion = dbus::INTERFACE_VERSION;
    extension->sendsSnapshots = false;
    extension->badges = {{url("a"), "SYNCED"}};
  }

  /// First badges are awaited for so long at most.
  void awaitFor(milliseconds coming) {
    makePlugin({.beforeInferring = milliseconds(20),
                .firstRetry = milliseconds(20),
                .lastRetry = milliseconds(160),
                .leaving = milliseconds(50),
                .coming = coming});
  }

  bool areComing(const std::string& name = "a") { return manager.plugin->areBadgesComing(path(name)); }
  bool waitUntilCame() {
    return runUntil([&] { return !manager.came.empty(); });
  }
  bool waitForSnapshotRequest() {
    return runUntil([&] { return extension->count("RequestSnapshot " + url("")) > 0; });
  }

  /// A window shows the root; its first badges are on their way.
  void show() {
    manager.plugin->folderShown(root);
    ASSERT_TRUE(areComing());
    ASSERT_TRUE(waitForSnapshotRequest());
    settle();
    ASSERT_TRUE(areComing());
    ASSERT_THAT(manager.came, IsEmpty());
  }
  /// Nobody waits any longer, and the file manager was told once.
  void expectCame() {
    ASSERT_TRUE(waitUntilCame());
    settle();
    EXPECT_THAT(manager.came, ElementsAre(root));
    EXPECT_FALSE(areComing());
  }
};

TEST_F(PluginFirstBadges, AreComingUntilTheSnapshotHasEnded) {
  show();
  extension->sendFolderBadges(url(""), {{url("a"), "SYNCED"}}, dbus::SNAPSHOT_BEGINS);
  settle();
  EXPECT_TRUE(areComing());
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  expectCame();
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  settle();
  EXPECT_EQ(manager.redraws(path("a")), 0u);
}

TEST_F(PluginFirstBadges, AreComingForAFolderThatIsExpected) {
  manager.plugin->folderExpected(root);
  EXPECT_TRUE(areComing());
  ASSERT_TRUE(waitForSnapshotRequest());
  extension->sendSnapshot(url(""));
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedLongerThanAllowed) {
  awaitFor(milliseconds(30));
  manager.plugin->folderShown(root);
  ASSERT_TRUE(areComing());
  expectCame();
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), "");
  ASSERT_TRUE(waitForSnapshotRequest());
  extension->sendSnapshot(url(""));
  EXPECT_TRUE(waitForEmblem("a", SYNCED)) << "late";
}

TEST_F(PluginFirstBadges, OfSeveralFoldersAreAllNotAwaitedLongerThanAllowed) {
  awaitFor(milliseconds(60));
  manager.plugin->folderShown(root);
  ASSERT_TRUE(areComing());
  pass(milliseconds(20));
  manager.plugin->folderShown(path("d"));
  ASSERT_TRUE(areComing("d/x"));
  EXPECT_TRUE(runUntil([&] { return manager.came.size() == 2; }));
  EXPECT_THAT(manager.came, UnorderedElementsAre(root, path("d")));
}

TEST_F(PluginFirstBadges, AreNotAwaitedInAFolderThatNoWindowReports) {
  EXPECT_FALSE(areComing());
  manager.show(path("a"));
  EXPECT_TRUE(waitForObserved(1));
  EXPECT_FALSE(areComing("b"));
  EXPECT_THAT(manager.came, IsEmpty());
}

TEST_F(PluginFirstBadges, AreNotAwaitedOnceAnItemWasAskedFor) {
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  EXPECT_FALSE(areComing());
  EXPECT_FALSE(areComing("b"));
}

TEST_F(PluginFirstBadges, AreNotAwaitedInAFolderThatComesBackWithItsLastEmblems) {
  extension->sendsSnapshots = true;
  open({{"a", "SYNCED"}});
  manager.plugin->folderHidden(root);
  manager.hide(path("a"));
  ASSERT_TRUE(waitForObserved(0));
  extension->sendsSnapshots = false;
  manager.plugin->folderShown(root);
  EXPECT_FALSE(areComing());
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginFirstBadges, AreNotAwaitedOutsideTheSyncedFolder) {
  const std::string outside = "/home/ann/Other";
  manager.plugin->folderShown(outside);
  EXPECT_TRUE(manager.plugin->areBadgesComing(outside + "/x")) << "while no extension has said which folder it is";
  ASSERT_TRUE(waitUntilCame());
  EXPECT_THAT(manager.came, ElementsAre(outside));
  EXPECT_FALSE(manager.plugin->areBadgesComing(outside + "/x"));
  manager.plugin->folderShown(outside + "/d");
  EXPECT_FALSE(manager.plugin->areBadgesComing(outside + "/d/x"));
}

TEST_F(PluginFirstBadges, AreNotAwaitedFromAnOlderExtension) {
  extension->interfaceVersion = 1;
  manager.plugin->folderShown(root);
  EXPECT_TRUE(areComing()) << "its version is not known yet";
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedFromAnExtensionThatCannotBeStarted) {
  extension.reset();
  int folders = 0;
  EXPECT_TRUE(runUntil([&] {
    const std::string folder = path(std::to_string(++folders));
    manager.plugin->folderShown(folder);
    return !manager.plugin->areBadgesComing(folder + "/x");
  })) << "once the bus has answered that nobody has the name";
}

TEST_F(PluginFirstBadges, AreNotAwaitedWhereThereIsNoSnapshot) {
  show();
  extension->sendFolderBadges(url(""), {}, dbus::NO_SNAPSHOT);
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedWhereTheExtensionHasNoRoom) {
  extension->places = 0;
  manager.plugin->folderShown(root);
  ASSERT_TRUE(areComing());
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedWhereTheExtensionRefusesTheFolder) {
  extension->refusals["BeginObserving"] = "NotAFolder";
  manager.plugin->folderShown(root);
  ASSERT_TRUE(areComing());
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedInAFolderThatHasLeftTheScreen) {
  show();
  manager.plugin->folderHidden(root);
  EXPECT_THAT(manager.came, IsEmpty()) << "not within the file manager's call";
  expectCame();
}

TEST_F(PluginFirstBadges, AreNotAwaitedWhenTheSyncedFolderIsAnotherOne) {
  show();
  extension->setFolders({"file:///home/ann/Other/"});
  expectCame();
}

}  // namespace
}  // namespace vornet::test
