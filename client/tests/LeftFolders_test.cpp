// Folders that leave the screen and come back: what the library keeps of them, and for how long.
#include <malloc.h>

#include "PluginTest.hpp"
#include "client/FoldersOnScreen.hpp"

namespace vornet::test {
namespace {

using client::Emblems;
using client::LeftFolder;
using client::LeftFolders;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PluginLeftFolders : public PluginTest {
 protected:
  PluginLeftFolders() {
    makePlugin({.beforeInferring = std::chrono::milliseconds(20), .leaving = std::chrono::milliseconds(50)});
    startExtension();
  }

  /// A window, or a tab in front, shows the root with these items.
  void openAll() { open({{"a", "SYNCED"}, {"b", "SYNCED"}, {"c", "SYNCED"}, {"none", ""}}); }
  void comeBack() {
    manager.plugin->folderShown(root);
    list(names_);
  }
  /// The user opens the root, and goes elsewhere: the file manager drops what it showed.
  void openAndGoElsewhere() {
    openAll();
    drop(names_);
    closeWindow();
  }

  const std::vector<std::string> names_ = {"a", "b", "c", "none"};
};

TEST_F(PluginLeftFolders, AFolderThatComesBackShowsItsLastEmblemsAtOnceAndIsThenUpdated) {
  openAndGoElsewhere();
  extension->badges = {{url("a"), "PENDING"}, {url("b"), "SYNCED"}, {url("none"), "SKIPPED"}};
  const auto redrawn = manager.redraws(path("b"));
  comeBack();
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(manager.emblem(path(name)), SYNCED) << name;
  EXPECT_EQ(manager.emblem(path("none")), "");
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_TRUE(waitForEmblem("c", ""));
  EXPECT_TRUE(waitForEmblem("none", SKIPPED));
  EXPECT_EQ(manager.redraws(path("b")), redrawn) << "it was right";
}

TEST_F(PluginLeftFolders, AFolderThatIsLeftBeforeItsItemsComeShowsItsLastEmblemsTheNextTime) {
  openAndGoElsewhere();
  manager.plugin->folderShown(root);
  manager.plugin->folderHidden(root);
  comeBack();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginLeftFolders, NoEmblemIsRememberedOfAFolderOutsideTheSyncedFolder) {
  openAndGoElsewhere();
  extension->setFolders({"file:///home/ann/Elsewhere"});
  manager.plugin->folderShown("/home/ann/Elsewhere");
  ASSERT_TRUE(waitForObserved(1)) << "it is known to have changed";
  comeBack();
  EXPECT_EQ(manager.emblem(path("a")), "");
}

TEST_F(PluginLeftFolders, EmblemsAreRememberedWhileTheExtensionIsAway) {
  openAndGoElsewhere();
  endExtension();
  comeBack();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  startExtension();
  extension->badges[url("a")] = "PENDING";
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

/// A folder of 10,000 items.
class PluginLargeFolders : public PluginLeftFolders {
 protected:
  static constexpr std::size_t COUNT = 10'000;

  PluginLargeFolders() {
    for (std::size_t i = 0; i < COUNT; ++i) names_.push_back(std::to_string(i));
    for (const auto& name : names_) extension->badges[url(name)] = "SYNCED";
    manager.plugin->folderShown(root);
    list(names_);
    EXPECT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == COUNT; }));
    settle();
  }

  std::vector<std::string> names_;
};

TEST_F(PluginLargeFolders, NoItemIsFreedWithinTheCallThatLeavesTheFolder) {
  drop(names_);
  manager.plugin->folderHidden(root);
  EXPECT_EQ(FakeFileManager::keptItems(), COUNT);
  EXPECT_TRUE(waitUntilForgotten());
}

TEST_F(PluginLargeFolders, AFolderThatComesBackWhileItIsBeingForgottenHasAllItsEmblems) {
  manager.plugin->folderHidden(root);
  manager.plugin->folderShown(root);
  drop(names_);
  list(names_);
  EXPECT_EQ(manager.withEmblem(SYNCED), COUNT);
}

TEST_F(PluginLargeFolders, ItemsOfAFolderThatTheLastTabHasLeftAreRedrawnAFewAtATime) {
  manager.plugin->folderOpened(root);
  manager.plugin->folderHidden(root);
  manager.plugin->folderClosed(root);
  std::size_t most = 0, last = manager.redrawn;
  const std::size_t all = last + COUNT;
  EXPECT_TRUE(runUntil([&] {
    most = std::max(most, manager.redrawn - std::exchange(last, manager.redrawn));
    return last == all;
  }));
  EXPECT_LT(most, COUNT);
}

/// A folder with these emblems is left.
void add(LeftFolders& left, const std::string& path, Emblems emblems) {
  const auto folder = std::make_shared<LeftFolder>();
  folder->path = path;
  folder->emblems = std::move(emblems);
  left.add(folder);
  while (left.read(*folder, 1)) continue;
}

/// A folder with the items "0", "1" … is left, and has not been read.
std::shared_ptr<LeftFolder> addItems(LeftFolders& left, const std::string& path, int count, std::string_view emblem) {
  const auto folder = std::make_shared<LeftFolder>();
  folder->path = path;
  for (int i = 0; i < count; ++i) folder->entries[std::to_string(i)].emblem = emblem;
  left.add(folder);
  return folder;
}

TEST(LeftFolders, RemembersEachFolderOnce) {
  LeftFolders left;
  add(left, "/a", {{"x", "one"}});
  add(left, "/a", {{"x", "two"}});
  EXPECT_EQ(left.take("/a"), (Emblems{{"x", "two"}}));
  EXPECT_THAT(left.take("/a"), IsEmpty());
}

TEST(LeftFolders, ForgetsTheFoldersThatWereLeftLongestAgo) {
  LeftFolders left;
  for (std::size_t i = 0; i <= LeftFolders::MOST_FOLDERS; ++i) add(left, "/" + std::to_string(i), {{"x", "one"}});
  EXPECT_THAT(left.take("/0"), IsEmpty());
  EXPECT_THAT(left.take("/1"), SizeIs(1));
}

TEST(LeftFolders, KeepsNoMoreItemsThanThereIsRoomFor) {
  const auto many = [](std::size_t count) {
    Emblems emblems;
    for (std::size_t i = 0; i < count; ++i) emblems.emplace(std::to_string(i), "one");
    return emblems;
  };
  LeftFolders left;
  add(left, "/first", many(LeftFolders::MOST_ITEMS - 10));
  add(left, "/huge", many(LeftFolders::MOST_ITEMS + 1));
  add(left, "/second", many(10));
  EXPECT_THAT(left.take("/huge"), IsEmpty());
  EXPECT_THAT(left.take("/second"), SizeIs(10));
  add(left, "/third", many(11));
  EXPECT_THAT(left.take("/first"), IsEmpty()) << "left longest ago";
  EXPECT_THAT(left.take("/third"), SizeIs(11));
  add(left, "/all", many(LeftFolders::MOST_ITEMS));
  EXPECT_THAT(left.take("/all"), SizeIs(LeftFolders::MOST_ITEMS)) << "what was taken leaves room";
  add(left, "/fourth", many(LeftFolders::MOST_ITEMS));
  left.keepOnly([](const std::string&) { return false; });
  add(left, "/fifth", many(LeftFolders::MOST_ITEMS));
  EXPECT_THAT(left.take("/fifth"), SizeIs(LeftFolders::MOST_ITEMS));
}

TEST(LeftFolders, AreReadAFewItemsAtATime) {
  LeftFolders left;
  const auto folder = addItems(left, "/a", 10, "one");
  EXPECT_TRUE(left.read(*folder, 4));
  EXPECT_TRUE(left.read(*folder, 4));
  EXPECT_FALSE(left.read(*folder, 4));
  EXPECT_THAT(left.take("/a"), SizeIs(10));
}

TEST(LeftFolders, AreReadAtOnceWhenTheyAreNeeded) {
  LeftFolders left;
  const auto taken = addItems(left, "/a", 10, "one");
  EXPECT_TRUE(left.read(*taken, 4));
  EXPECT_THAT(left.take("/a"), SizeIs(10));
  EXPECT_FALSE(left.read(*taken, 4)) << "it was taken";
  EXPECT_FALSE(left.has("/a"));
  addItems(left, "/a", 10, "one");
  EXPECT_TRUE(left.has("/a"));
  addItems(left, "/b", 10, "one");
  left.keepOnly([](const std::string& path) { return path == "/a"; });
  EXPECT_THAT(left.take("/a"), SizeIs(10));
  EXPECT_THAT(left.take("/b"), IsEmpty());
}

TEST(LeftFolders, OneWithoutEmblemsReplacesNoneUnlessItIsComplete) {
  LeftFolders left;
  addItems(left, "/a", 10, "one");
  addItems(left, "/a", 10, "");
  EXPECT_THAT(left.take("/a"), SizeIs(10));
  addItems(left, "/a", 10, "one");
  addItems(left, "/a", 10, "")->isComplete = true;
  EXPECT_THAT(left.take("/a"), IsEmpty());
}

// --- Tabs -----------------------------------------------------------------------------------------------------------

class PluginTabs : public PluginLeftFolders {
 protected:
  PluginTabs() {
    manager.plugin->folderOpened(root);
    openAll();
  }
  void sendToBack() { closeWindow(); }
};

TEST_F(PluginTabs, ATabInTheBackgroundKeepsItsItemsAndSendsNoRequest) {
  sendToBack();
  extension->badges[url("a")] = "PENDING";
  manager.show(path("a"));  // it changed on the disk
  manager.show(path("new"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  ASSERT_TRUE(appears("other/x"));  // of no tab: inferred after these
  EXPECT_THAT(extension->observed, ElementsAre(url("other")));
  EXPECT_EQ(FakeFileManager::keptItems(), 6u);
}

TEST_F(PluginTabs, ATabThatComesToTheFrontRedrawsWhatHasChangedAndNothingElse) {
  sendToBack();
  extension->badges = {{url("a"), "PENDING"}, {url("b"), "SYNCED"}};
  const auto redrawn = manager.redraws(path("b"));
  manager.plugin->folderShown(root);
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_EQ(manager.redraws(path("b")), redrawn);
  EXPECT_TRUE(changes("b", "SKIPPED"));
}

TEST_F(PluginTabs, TheItemsOfAFolderThatTheLastTabHasLeftAreRedrawnAndForgotten) {
  manager.plugin->folderOpened(root);
  sendToBack();
  manager.plugin->folderClosed(root);
  const auto redrawn = manager.redraws(path("a"));
  drop(names_);
  manager.plugin->folderClosed(root);
  EXPECT_EQ(manager.redraws(path("a")), redrawn);
  ASSERT_TRUE(waitUntilForgotten());
  EXPECT_EQ(manager.redraws(path("a")), redrawn + 1);
  EXPECT_EQ(manager.redraws(path("none")), 1u);
}

TEST_F(PluginTabs, AFolderThatTheUserComesBackToAtOnceIsAskedForAgain) {
  sendToBack();
  manager.plugin->folderClosed(root);
  extension->badges[url("a")] = "PENDING";
  manager.plugin->folderOpened(root);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  pass(std::chrono::milliseconds(200));
  EXPECT_EQ(FakeFileManager::keptItems(), 4u) << "it was not left";
}

TEST_F(PluginTabs, ABranchElsewhereIsInferredOnceTheLastTabHasLeftItsFolder) {
  sendToBack();
  manager.plugin->folderClosed(root);  // the file manager still shows its items
  ASSERT_TRUE(waitForObserved(1));
  EXPECT_TRUE(changes("a", "PENDING"));
}

TEST_F(PluginTabs, ItemsThatAreGoneAreForgottenWhenTheTabComesToTheFront) {
  sendToBack();
  manager.goneFor = {path("a")};
  extension->badgeRequests.clear();
  extension->badges[url("b")] = "PENDING";
  manager.plugin->folderShown(root);
  EXPECT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_EQ(FakeFileManager::keptItems(), 3u);
  EXPECT_EQ(asked(), 3u);
}

TEST_F(PluginTabs, ItemsThatComeAndGoDoNotPileUp) {
  for (int i = 0; i < 5000; ++i) {
    const auto file = path(std::to_string(i));
    manager.show(file);
    manager.hide(file);
    manager.goneFor.insert(file);
  }
  EXPECT_LE(FakeFileManager::keptItems(), 1100u);
}

TEST_F(PluginTabs, ItemsThatAreGoneAreSearchedForAFewAtATime) {
  std::size_t most = 0;
  for (int i = 0; i < 10'000; ++i) {
    const auto before = manager.lookedFor;
    manager.show(path(std::to_string(i)));
    most = std::max(most, manager.lookedFor - before);
  }
  EXPECT_GT(most, 0u);
  EXPECT_LT(most, 50u);
}

TEST_F(PluginTabs, ItemsThatComeAndGoInTheBackgroundCostNoMemory) {
  sendToBack();
  const auto name = [this](int number) { return path(std::string(200, 'n') + std::to_string(number)); };
  const auto comeAndGo = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      manager.show(name(i));
      manager.hide(name(i));
      manager.goneFor.insert(name(i));
      manager.goneFor.erase(name(i - 4096));  // long forgotten
    }
    return mallinfo2().uordblks;  // 0 under a sanitizer
  };
  const auto before = comeAndGo(0, 10'000);
  EXPECT_LT(comeAndGo(10'000, 60'000), before + (4u << 20)) << "their names alone have 10 MB";
}

TEST_F(PluginTabs, ItemsThatComeAgainAndAgainWithoutAnExtensionCostNoMemory) {
  endExtension();
  const auto comeAndGo = [this](int times) {
    for (int i = 0; i < times; ++i) {
      const auto file = path(std::string(200, 'n') + std::to_string(i % 3000));
      manager.goneFor.erase(file);
      manager.show(file);
      manager.hide(file);
      manager.goneFor.insert(file);
    }
    return mallinfo2().uordblks;  // 0 under a sanitizer
  };
  const auto before = comeAndGo(10'000);
  EXPECT_LT(comeAndGo(50'000), before + (4u << 20)) << "their names alone have 10 MB";
}

TEST_F(PluginTabs, AnAnswerThatComesToATabInTheBackgroundIsDrawn) {
  extension->hold("RequestBadges");
  extension->badges[url("new")] = "SKIPPED";
  manager.show(path("new"));
  ASSERT_TRUE(waitForHeld("RequestBadges"));
  manager.plugin->folderHidden(root);
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForEmblem("new", SKIPPED));
}

TEST_F(PluginTabs, ATabInTheBackgroundLosesItsEmblemsWithTheSyncedFolderAndKeepsItsItems) {
  sendToBack();
  extension->setFolders({"file:///home/ann/Elsewhere"});
  EXPECT_TRUE(waitForEmblem("a", "") && waitForEmblem("b", ""));
  const auto redrawn = manager.redraws(path("a"));
  extension->setFolders({url("")});
  manager.plugin->folderShown(root);
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(manager.redraws(path("a")), redrawn + 1);
  // The file manager does not ask for items off screen.
  sendToBack();
  drop(names_);
  extension->setFolders({"file:///home/ann/Elsewhere"});
  ASSERT_TRUE(runUntil([&] { return manager.redraws(path("a")) == redrawn + 2; }));
  EXPECT_EQ(FakeFileManager::keptItems(), 4u);
}

TEST_F(PluginTabs, AFolderWithoutRoomIsNotAskedForInTheBackground) {
  makePlugin({.unobservedRefresh = std::chrono::milliseconds(50)});
  extension->observed.clear();
  extension->places = 0;
  manager.plugin->folderOpened(root);
  comeBack();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  manager.plugin->folderHidden(root);
  settle();
  extension->calls.clear();
  pass(std::chrono::milliseconds(300));  // six times the pace
  EXPECT_LE(extension->calls.size(), 2u) << "those in flight";
  manager.plugin->folderShown(root);
  extension->badges[url("a")] = "PENDING";
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

}  // namespace
}  // namespace vornet::test
