// The emblems of what is on screen, as a file manager gets them from the library.
#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Not;
using testing::UnorderedElementsAre;

class PluginBadges : public PluginTest {
 protected:
  PluginBadges() { startExtension(); }

  /// Shows the folder `root` with these items, and waits until each has been answered.
  void open(const std::map<std::string, std::string>& items) {
    for (const auto& [name, identifier] : items) extension->badges[url(name)] = identifier;
    manager.plugin->folderShown(root);
    for (const auto& [name, identifier] : items) manager.show(path(name));
    ASSERT_TRUE(runUntil([&] { return asked() >= items.size(); }));
    settle();
  }
};

TEST_F(PluginBadges, EmblemsOfAllThreeKindsArriveAutomatically) {
  open({{"a", "SYNCED"}, {"b", "PENDING"}, {"c", "SKIPPED"}, {"d", ""}});
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_TRUE(waitForEmblem("c", SKIPPED));
  EXPECT_EQ(manager.emblem(path("d")), "");
  EXPECT_EQ(manager.redraws(path("a")), 1u);
  EXPECT_EQ(manager.redraws(path("d")), 0u) << "nothing changed there";
}

TEST_F(PluginBadges, ABadgeOfAnUnknownKindShowsNothing) {
  open({{"a", "SOMETHING"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("b", SYNCED));
  EXPECT_EQ(manager.emblem(path("a")), "");
}

TEST_F(PluginBadges, AChangeRedrawsThatItemAlone) {
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));
  extension->sendChanges({{url("a"), "PENDING"}});
  ASSERT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_EQ(manager.redraws(path("a")), 2u);
  EXPECT_EQ(manager.redraws(path("b")), 1u);
}

TEST_F(PluginBadges, AnEmptiedIdentifierRemovesTheEmblem) {
  open({{"a", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  extension->sendChanges({{url("a"), ""}});
  EXPECT_TRUE(waitForEmblem("a", ""));
}

TEST_F(PluginBadges, TheSameBadgeAgainRedrawsNothing) {
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));
  extension->sendChanges({{url("a"), "SYNCED"}, {url("b"), "PENDING"}});
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_EQ(manager.redraws(path("a")), 1u);
}

TEST_F(PluginBadges, TheLastOfSeveralChangesIsShown) {
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));
  extension->sendChanges({{url("a"), "PENDING"}, {url("a"), "SKIPPED"}});
  extension->sendChanges({{url("a"), "SYNCED"}, {url("a"), "PENDING"}});
  extension->sendChanges({{url("b"), "SKIPPED"}});
  ASSERT_TRUE(waitForEmblem("b", SKIPPED));
  EXPECT_EQ(manager.emblem(path("a")), PENDING);
}

TEST_F(PluginBadges, ChangesOfWhatIsNotShownAreIgnored) {
  open({{"a", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  extension->sendChanges(
      {{url("x"), "PENDING"}, {"file:///elsewhere/a", "PENDING"}, {"no URL", "PENDING"}, {url("a"), "SKIPPED"}});
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_EQ(manager.redraws(path("x")), 0u);
}

TEST_F(PluginBadges, AChangeIsFoundHoweverItsURLIsWritten) {
  open({{"a b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a b", SYNCED));
  extension->sendChanges({{url("") + "/%61%20%62", "PENDING"}});
  EXPECT_TRUE(waitForEmblem("a b", PENDING));
}

TEST_F(PluginBadges, AnItemThatIsAskedForAgainIsAnsweredAtOnce) {
  open({{"a", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(asked(), 1u);
}

TEST_F(PluginBadges, AnItemThatComesLaterIsAskedForAutomatically) {
  open({{"a", "SYNCED"}});
  extension->badges[url("new")] = "PENDING";
  manager.show(path("new"));
  EXPECT_TRUE(waitForEmblem("new", PENDING));
}

TEST_F(PluginBadges, AwkwardNamesKeepTheirBytes) {
  const std::vector<std::string> names = {
      "a b",       "a:b",      "100%", "#1",      "line\nbreak", "☀\xf0\x9f\x98\x80",
      "e\xcc\x81", "\xc3\xa9", "%41",  "a?b=c&d", "'\"\\",       std::string(255, 'x')};
  std::map<std::string, std::string> items;
  for (const auto& name : names) items[name] = "SYNCED";
  open(items);
  for (const auto& name : names) EXPECT_TRUE(waitForEmblem(name, SYNCED)) << name;
  extension->sendChanges({{url("e\xcc\x81"), "PENDING"}, {url("%41"), "SKIPPED"}});
  EXPECT_TRUE(waitForEmblem("e\xcc\x81", PENDING));
  EXPECT_EQ(manager.emblem(path("\xc3\xa9")), SYNCED) << "the other Unicode form is another file";
  EXPECT_TRUE(waitForEmblem("%41", SKIPPED));
}

TEST_F(PluginBadges, ANameThatIsNotUtf8HasNoEmblemAndIsNotAskedFor) {
  open({{"a", "SYNCED"}});
  manager.show(path("caf\xe9"));
  extension->badges[url("b")] = "SYNCED";
  manager.show(path("b"));
  ASSERT_TRUE(waitForEmblem("b", SYNCED));
  EXPECT_EQ(manager.emblem(path("caf\xe9")), "");
  EXPECT_EQ(asked(), 2u);
}

TEST_F(PluginBadges, NothingOutsideTheSyncedFolderIsObservedOrAskedFor) {
  open({{"a", "SYNCED"}});
  for (const char* folder : {"/home/ann", "/home/ann/Kelvane2", "/home/ann/Kelvan", "/etc"}) {
    manager.plugin->folderShown(folder);
    manager.show(std::string(folder) + "/x");
  }
  manager.show(root);
  extension->badges[url("b")] = "SYNCED";
  manager.show(path("b"));
  ASSERT_TRUE(waitForEmblem("b", SYNCED));
  EXPECT_THAT(extension->observed, ElementsAre(url("")));
  EXPECT_EQ(asked(), 2u);
  EXPECT_EQ(manager.emblem("/etc/x"), "");
}

TEST_F(PluginBadges, ItemsAreAskedForOnceTheFolderIsObserved) {
  extension->badges[url("a")] = "SYNCED";
  extension->hold("BeginObserving");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  manager.plugin->menu({path("a")});
  ASSERT_TRUE(runUntil([&] { return !extension->menuRequests.empty(); }));
  EXPECT_EQ(asked(), 0u);
  extension->release("BeginObserving");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginBadges, ManyItemsAreAskedForInBatchesAndEachOnce) {
  const std::size_t count = 10'000;
  for (std::size_t i = 0; i < count; ++i) extension->badges[url(std::to_string(i))] = "SYNCED";
  manager.plugin->folderShown(root);
  for (std::size_t i = 0; i < count; ++i) manager.show(path(std::to_string(i)));
  ASSERT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == count; }));
  EXPECT_EQ(asked(), count);
  EXPECT_LE(extension->badgeRequests.size(), 25u);
  for (const auto& request : extension->badgeRequests) EXPECT_LE(request.size(), 500u);
}

TEST_F(PluginBadges, ManyChangesOfAnItemRedrawItOnce) {
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));
  std::vector<std::pair<std::string, std::string>> changes;
  for (int i = 0; i < 1000; ++i) {
    changes.emplace_back(url("a"), "SYNCED");
    changes.emplace_back(url("a"), "PENDING");
  }
  extension->sendChanges(changes);
  ASSERT_TRUE(waitForEmblem("a", PENDING));
  extension->sendChanges({{url("b"), "PENDING"}});
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_EQ(manager.redraws(path("a")), 2u);
}

TEST_F(PluginBadges, AnExtensionThatHangsIsSentFewRequestsAndTheRestWhenItGoesOn) {
  const std::size_t count = 5'000;
  for (std::size_t i = 0; i < count; ++i) extension->badges[url(std::to_string(i))] = "SYNCED";
  extension->hold("RequestBadges");
  manager.plugin->folderShown(root);
  for (std::size_t i = 0; i < count; ++i) manager.show(path(std::to_string(i)));
  ASSERT_TRUE(waitForHeld("RequestBadges", 4));
  manager.plugin->menu({path("0")});  // its request comes after any other that is due
  ASSERT_TRUE(runUntil([&] { return !extension->menuRequests.empty(); }));
  EXPECT_EQ(extension->heldCalls("RequestBadges"), 4u);
  extension->release("RequestBadges");
  EXPECT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == count; }));
}

TEST_F(PluginBadges, AnAnswerReplacesAChangeThatCameBeforeIt) {
  extension->badges[url("a")] = "SYNCED";
  extension->hold("RequestBadges");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForHeld("RequestBadges"));
  extension->sendChanges({{url("a"), "PENDING"}});
  ASSERT_TRUE(waitForEmblem("a", PENDING));
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginBadges, AnAnswerForAFolderThatHasLeftTheScreenIsDropped) {
  extension->badges[url("a")] = "SYNCED";
  extension->hold("RequestBadges");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForHeld("RequestBadges"));
  manager.plugin->folderHidden(root);
  extension->release("RequestBadges");
  ASSERT_TRUE(waitForObserved(0));
  settle();
  EXPECT_EQ(manager.redraws(path("a")), 0u);
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
}

// --- Folders on screen ----------------------------------------------------------------------------------------------

TEST_F(PluginBadges, TwoWindowsOnOneFolderCountTwice) {
  manager.plugin->folderShown(root);
  manager.plugin->folderShown(root + "/");
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(1));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
}

TEST_F(PluginBadges, HidingWhatIsNotShownIsIgnored) {
  manager.plugin->folderHidden(path("never"));
  manager.plugin->folderShown(root);
  manager.plugin->folderHidden(root);
  manager.plugin->folderHidden(root);
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
}

TEST_F(PluginBadges, TheBadgesStayWhileOneOfTwoWindowsLeaves) {
  open({{"a", "SYNCED"}});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(1));
  extension->sendChanges({{url("a"), "PENDING"}});
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

TEST_F(PluginBadges, AFolderThatLeavesTheScreenIsForgottenWithItsItems) {
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});
  ASSERT_TRUE(waitForEmblem("b", SYNCED));
  EXPECT_EQ(FakeFileManager::keptItems(), 2u);
  manager.plugin->folderHidden(root);
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
  EXPECT_TRUE(waitForObserved(0));
}

TEST_F(PluginBadges, AThousandFoldersOneAfterAnotherLeaveNothingBehind) {
  for (int i = 0; i < 1000; ++i) {
    const std::string folder = "folder" + std::to_string(i);
    manager.plugin->folderShown(path(folder));
    for (int item = 0; item < 5; ++item) manager.show(path(folder + "/" + std::to_string(item)));
    if (i % 50 == 0) ASSERT_TRUE(waitForObserved(1));
    manager.plugin->folderHidden(path(folder));
    EXPECT_EQ(FakeFileManager::keptItems(), 0u);
  }
  EXPECT_TRUE(waitForObserved(0));
}

TEST_F(PluginBadges, AFolderThatIsRefusedShowsNoBadgesAndTheOthersDo) {
  extension->refusals["BeginObserving"] = "NotAFolder";
  manager.plugin->folderShown(path("gone"));
  manager.show(path("gone/x"));
  ASSERT_TRUE(runUntil([&] { return !extension->calls.empty(); }));
  settle();
  extension->refusals.clear();
  open({{"a", "SYNCED"}});
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(manager.emblem(path("gone/x")), "");
  EXPECT_THAT(extension->observed, ElementsAre(url("")));
}

TEST_F(PluginBadges, TheEndOfThePluginLeavesTheBus) {
  open({{"a", "SYNCED"}});
  const auto before = busNames();
  manager.plugin.reset();
  EXPECT_TRUE(runUntil([&] { return busNames() == before - 1; }));
}

// --- Folders that no window reports ---------------------------------------------------------------------------------

class PluginInference : public PluginBadges {
 protected:
  PluginInference() {
    makePlugin({.beforeInferring = std::chrono::milliseconds(20), .inferredFor = std::chrono::milliseconds(400)});
  }
};

TEST_F(PluginInference, ItemsOfAFolderThatNoWindowShowsGetTheirBadgesAndChanges) {
  extension->badges[url("branch/a")] = "SYNCED";
  manager.show(path("branch/a"));
  ASSERT_TRUE(waitForEmblem("branch/a", SYNCED));
  EXPECT_THAT(extension->observed, ElementsAre(url("branch")));
  extension->sendChanges({{url("branch/a"), "PENDING"}});
  EXPECT_TRUE(waitForEmblem("branch/a", PENDING));
}

TEST_F(PluginInference, AnInferredFolderIsObservedAsLongAsItsItemsAreShownAndNoLonger) {
  extension->badges[url("branch/a")] = "SYNCED";
  manager.show(path("branch/a"));
  ASSERT_TRUE(waitForEmblem("branch/a", SYNCED));
  // While the items are shown, every test finds them.
  ASSERT_TRUE(runUntil([&] { return manager.redraws(path("branch/a")) >= 4; }));
  EXPECT_THAT(extension->observed, ElementsAre(url("branch")));
  EXPECT_EQ(manager.emblem(path("branch/a")), SYNCED);
  EXPECT_EQ(asked(), 1u);
  manager.hide(path("branch/a"));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
}

TEST_F(PluginInference, AFolderThatAWindowReportsInTimeIsNotInferred) {
  makePlugin({.beforeInferring = std::chrono::seconds(60)});
  extension->badges[url("a")] = "SYNCED";
  manager.show(path("a"));
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(extension->observed.size(), 1u);
  manager.plugin->folderHidden(root);
  EXPECT_TRUE(waitForObserved(0));
}

TEST_F(PluginInference, AWindowThatReportsLateTakesTheInferredFolderOver) {
  extension->badges[url("a")] = "SYNCED";
  manager.show(path("a"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  manager.plugin->folderShown(root);
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(2));
  EXPECT_EQ(asked(), 1u);
  manager.plugin->folderHidden(root);
  manager.hide(path("a"));
  manager.plugin->folderHidden(root);
  EXPECT_TRUE(waitForObserved(0));
}

TEST_F(PluginInference, ABranchThatWasAWindowsFolderTooStaysObserved) {
  extension->badges[url("branch/a")] = "SYNCED";
  manager.show(path("branch/a"));
  ASSERT_TRUE(waitForEmblem("branch/a", SYNCED));
  manager.plugin->folderShown(path("branch"));
  manager.plugin->folderHidden(path("branch"));  // the tree still shows it
  ASSERT_TRUE(runUntil([&] { return asked() == 2; }));
  extension->sendChanges({{url("branch/a"), "PENDING"}});
  EXPECT_TRUE(waitForEmblem("branch/a", PENDING));
}

TEST_F(PluginInference, TheFoldersAboveAWindowsFolderAreNotTakenToBeOnScreen) {
  manager.plugin->folderShown(path("a/b/c"));
  manager.show(path("a/b/c"));
  manager.show(path("a/b"));
  manager.show(path("a"));
  extension->badges[url("other/x")] = "SYNCED";
  manager.show(path("other/x"));
  ASSERT_TRUE(waitForEmblem("other/x", SYNCED));
  EXPECT_THAT(extension->observed, UnorderedElementsAre(url("a/b/c"), url("other")));
}

TEST_F(PluginInference, TheResultsOfASearchInThousandsOfFoldersObserveFewOfThem) {
  for (int i = 0; i < 200; ++i) manager.show(path(std::to_string(i) + "/found"));
  ASSERT_TRUE(runUntil([&] { return asked() >= 64; }));
  settle();
  EXPECT_LE(extension->observed.size(), 64u);
  EXPECT_LE(FakeFileManager::keptItems(), 64u);
}

}  // namespace
}  // namespace vornet::test
