// The extension comes, goes, hangs, fails to start; the file manager goes on.
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class PluginAndExtension : public PluginTest {
 protected:
  /// Has the bus start `script` when the extension is asked for.
  void installScript(const std::string& script) {
    const std::string program = environment.folder() / "program";
    writeFile(program, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    writeFile(services + "/com.vornet.KelvaneSync.FinderBadgeExtension.service",
              "[D-BUS Service]\nName=com.vornet.KelvaneSync.FinderBadgeExtension\nExec=" + program + "\n");
    callBus("ReloadConfig");  // it has read its services anew when this returns
  }

  std::size_t linesOf(const std::string& file) {
    const auto text = readFile(environment.folder() / file);
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }
};

TEST_F(PluginAndExtension, BadgesAppearWhenTheExtensionComesAfterTheWindow) {
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  settle();
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, EmblemsStayWhenItEndsAndAreRightAgainWhenAnotherOneComes) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  extension->badges[url("b")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  manager.show(path("b"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));

  extension.reset();
  settle();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);

  startExtension();
  extension->badges[url("a")] = "SYNCED";
  extension->badges[url("b")] = "SKIPPED";
  EXPECT_TRUE(waitForEmblem("b", SKIPPED));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.redraws(path("a")), 1u) << "its badge is the same as before";
  EXPECT_TRUE(waitForObserved(2)) << "two windows, also for the new process";
}

TEST_F(PluginAndExtension, WhatFormerProcessesHadObservedIsNotEndedWithTheNewOne) {
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
  extension->hold("BeginObserving");
  manager.plugin->folderShown(path("other"));
  ASSERT_TRUE(runUntil([&] { return extension->heldCalls("BeginObserving") == 1; }));
  extension.reset();
  startExtension();
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  manager.plugin->folderHidden(path("other"));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(std::count(extension->calls.begin(), extension->calls.end(), "EndObserving"), 2);
}

TEST_F(PluginAndExtension, AnAnswerOfTheProcessBeforeIsNotTakenForTheNewOnes) {
  startExtension();
  extension->hold("RequestBadges");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] { return extension->heldCalls("RequestBadges") == 1; }));
  extension.reset();
  startExtension();
  extension->badges[url("a")] = "PENDING";
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

TEST_F(PluginAndExtension, TheBusIsAskedToStartItWhenAFolderComesOnScreenAndNotBefore) {
  installScript("echo started >>'" + environment.folder() / "starts" + "'; exec sleep 60");
  settle();
  EXPECT_EQ(linesOf("starts"), 0u);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(runUntil([&] { return linesOf("starts") == 1; }));
}

TEST_F(PluginAndExtension, WhereItIsNotInstalledThePluginIsSilentAndFindsItWhenItComes) {
  const auto before = busNames();
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] { return busNames() > before; }));
  for (int i = 0; i < 20; ++i) {
    manager.plugin->folderShown(path(std::to_string(i)));
    EXPECT_TRUE(manager.plugin->menu({path("a")}).empty()) << "nobody has told where the synced folder is";
    callBus("GetId");
    settle();
  }
  // Installed and started by somebody else, it is found all the same.
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginAndExtension, OneThatCannotBeStartedIsTriedAFewTimesWithOneLineInTheLog) {
  installScript("echo started >>'" + environment.folder() / "starts" + "'; exit 1");
  makePlugin({.firstRetry = milliseconds(5), .lastRetry = milliseconds(40)});
  manager.plugin->folderShown(root);
  // At once, after 5, 10 and 20 ms; the next wait would be the longest.
  ASSERT_TRUE(runUntil([&] { return linesOf("starts") == 4; }));
  EXPECT_EQ(logLines, 1);
  // Somebody who comes to a folder has it tried again.
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->folderShown(path("other"));
    return linesOf("starts") > 4;
  }));
  EXPECT_EQ(logLines, 1);
}

TEST_F(PluginAndExtension, NothingIsStartedAnewWhenNoFolderOfItsIsOnScreen) {
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
  manager.plugin->folderHidden(root);
  manager.plugin->folderShown("/etc");
  ASSERT_TRUE(waitForObserved(0));
  installScript("echo started >>'" + environment.folder() / "starts" + "'; exec sleep 60");
  extension.reset();
  settle();
  EXPECT_EQ(linesOf("starts"), 0u);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(runUntil([&] { return linesOf("starts") == 1; }));
}

TEST_F(PluginAndExtension, TheEndOfTheBusChangesNothingOnScreen) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  bus.stop();
  for (int i = 0; i < 1000; ++i) {
    manager.plugin->folderShown(path(std::to_string(i)));
    manager.show(path(std::to_string(i) + "/x"));
    manager.plugin->menu({path("a")});
    settle();
    manager.plugin->folderHidden(path(std::to_string(i)));
  }
  manager.plugin->perform("share:", {path("a")});
  settle();
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_LE(logLines, 2) << "one for the bus, one for the action";
}

TEST_F(PluginAndExtension, ASyncApplicationThatIsConfiguredLaterGetsItsBadgesByItself) {
  extension = std::make_unique<FakeExtension>(bus.address(), std::vector<std::string>{});
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->menu({path("a")});
    return manager.menuChanges > 0;
  })) << "the folders are known now: there are none";
  EXPECT_TRUE(extension->calls.empty());
  extension->setFolders({url("")});
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, BadgesGoWhenTheSyncApplicationIsNoLongerConfiguredAndComeBackWithIt) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  extension->setFolders({});
  EXPECT_TRUE(waitForEmblem("a", ""));
  EXPECT_TRUE(waitForObserved(0));
  extension->setFolders({url("")});
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, BadgesGoWhenTheSyncedFolderIsAnotherNow) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  extension->setFolders({"file:///home/ann/Elsewhere"});
  EXPECT_TRUE(waitForEmblem("a", ""));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
}

}  // namespace
}  // namespace vornet::test
