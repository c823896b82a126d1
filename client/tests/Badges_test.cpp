// The emblems of what is on screen, as a file manager gets them from the library.
#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Le;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class PluginBadges : public PluginTest {
 protected:
  PluginBadges() { startExtension(); }

  /// A window shows the root with so many items that have the badge "SYNCED".
  void openLarge(std::size_t count) {
    Items items;
    for (std::size_t i = 0; i < count; ++i) items[std::to_string(i)] = "SYNCED";
    openWindow("", items);
  }
};

TEST_F(PluginBadges, EmblemsOfAllThreeKindsArriveAutomaticallyAndNoneForAnUnknownKind) {
  open({{"a", "SYNCED"}, {"b", "PENDING"}, {"c", "SKIPPED"}, {"d", ""}, {"e", "SOMETHING"}});
  EXPECT_EQ(manager.redraws(path("a")), 1u);
  for (const char* name : {"d", "e"}) {
    EXPECT_EQ(manager.emblem(path(name)), "") << name;
    EXPECT_EQ(manager.redraws(path(name)), 0u) << "nothing changed there: " << name;
  }
}

TEST_F(PluginBadges, ChangesAreDrawn) {
  const std::string item = url("a b");
  FakeExtension::Changes many;
  for (int i = 0; i < 1000; ++i) many.insert(many.end(), {{item, "SYNCED"}, {item, "PENDING"}});
  const FakeExtension::Changes ofOthers = {
      {url("x"), "PENDING"}, {"file:///elsewhere/a%20b", "PENDING"}, {"no URL", "PENDING"}, {item, "SKIPPED"}};
  const struct {
    std::string behaviour;
    std::vector<FakeExtension::Changes> messages;
    std::string emblem;
    testing::Matcher<std::size_t> redraws;
  } rows[] = {
      {"a change redraws its item alone", {{{item, "PENDING"}}}, PENDING, 1u},
      {"an emptied identifier removes the emblem", {{{item, ""}}}, "", 1u},
      {"the same badge again redraws nothing", {{{item, "SYNCED"}}}, SYNCED, 0u},
      {"the last of several changes is shown",
       {{{item, "PENDING"}, {item, "SKIPPED"}}, {{item, "SYNCED"}, {item, "PENDING"}}},
       PENDING,
       Le(2u)},
      {"changes of what is not shown are ignored", {ofOthers}, SKIPPED, 1u},
      {"a change is found however its URL is written", {{{url("") + "/%61%20%62", "PENDING"}}}, PENDING, 1u},
      {"many changes of an item redraw it once", {many}, PENDING, 1u},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    makePlugin();
    open({{"a b", "SYNCED"}, {"other", "SYNCED"}});
    const auto before = manager.redraws(path("a b"));
    const auto beforeOfOther = manager.redraws(path("other"));
    for (const auto& message : row.messages) extension->sendChanges(message);
    ASSERT_TRUE(changes("other", "PENDING"));
    settle();
    EXPECT_EQ(manager.emblem(path("a b")), row.emblem);
    EXPECT_THAT(manager.redraws(path("a b")) - before, row.redraws);
    EXPECT_EQ(manager.redraws(path("other")) - beforeOfOther, 1u);
    EXPECT_EQ(manager.redraws(path("x")), 0u);
  }
}

TEST_F(PluginBadges, AnItemThatIsAskedForAgainIsAnsweredAtOnce) {
  open({{"a", "SYNCED"}});
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(asked(), 1u);
}

TEST_F(PluginBadges, AnItemThatComesLaterIsAskedForAutomatically) {
  open({{"a", "SYNCED"}});
  EXPECT_TRUE(appears("new", "PENDING"));
}

TEST_F(PluginBadges, AwkwardNamesKeepTheirBytes) {
  Items items;
  for (const auto& name :
       std::vector<std::string>{"a b", "a:b", "100%", "#1", "line\nbreak", "☀\xf0\x9f\x98\x80", "e\xcc\x81", "\xc3\xa9",
                                "%41", "a?b=c&d", "'\"\\", std::string(255, 'x')})
    items[name] = "SYNCED";
  open(items);
  EXPECT_TRUE(changes("e\xcc\x81", "PENDING"));
  EXPECT_EQ(manager.emblem(path("\xc3\xa9")), SYNCED) << "the other Unicode form is another file";
  EXPECT_TRUE(changes("%41", "SKIPPED"));
}

TEST_F(PluginBadges, ANameThatIsNotUtf8HasNoEmblemAndIsNotAskedFor) {
  open({{"a", "SYNCED"}});
  manager.show(path("caf\xe9"));
  ASSERT_TRUE(appears("b"));
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
  ASSERT_TRUE(appears("b"));
  EXPECT_THAT(extension->observed, ElementsAre(url("")));
  EXPECT_EQ(asked(), 2u);
  EXPECT_EQ(manager.emblem("/etc/x"), "");
}

TEST_F(PluginBadges, ItemsAreAskedForOnceTheFolderIsObserved) {
  openHeld("BeginObserving");
  roundTrip();
  EXPECT_EQ(asked(), 0u);
  extension->release("BeginObserving");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginBadges, ManyItemsAreAskedForInBatchesAndEachOnce) {
  const std::size_t count = 10'000;
  openLarge(count);
  ASSERT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == count; }));
  EXPECT_EQ(asked(), count);
  EXPECT_LE(extension->badgeRequests.size(), 25u);
  EXPECT_THAT(extension->badgeRequests, Each(SizeIs(Le(500u))));
}

TEST_F(PluginBadges, AnExtensionThatHangsIsSentFewRequestsAndTheRestWhenItGoesOn) {
  const std::size_t count = 5'000;
  extension->hold("RequestBadges");
  openLarge(count);
  ASSERT_TRUE(waitForHeld("RequestBadges", 4));
  roundTrip();  // comes after any other request that is due
  EXPECT_EQ(extension->heldCalls("RequestBadges"), 4u);
  extension->release("RequestBadges");
  EXPECT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == count; }));
}

TEST_F(PluginBadges, AnAnswerReplacesAChangeThatCameBeforeIt) {
  openHeld("RequestBadges");
  ASSERT_TRUE(changes("a", "PENDING"));
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginBadges, AnAnswerForAFolderThatHasLeftTheScreenIsDropped) {
  openHeld("RequestBadges");
  manager.plugin->folderHidden(root);
  extension->release("RequestBadges");
  ASSERT_TRUE(waitForObserved(0));
  settle();
  EXPECT_EQ(manager.redraws(path("a")), 0u);
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
}

// --- Folders on screen ----------------------------------------------------------------------------------------------

TEST_F(PluginBadges, TwoWindowsOnOneFolderCountTwiceAndTheBadgesStayWhileOneOfThemLeaves) {
  open({{"a", "SYNCED"}});
  manager.plugin->folderShown(root + "/");
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(1));
  EXPECT_TRUE(changes("a", "PENDING"));
  closeWindow();
}

TEST_F(PluginBadges, HidingWhatIsNotShownIsIgnored) {
  manager.plugin->folderHidden(path("never"));
  manager.plugin->folderShown(root);
  manager.plugin->folderHidden(root);
  manager.plugin->folderHidden(root);
  openObserved();
}

TEST_F(PluginBadges, AThousandFoldersOneAfterAnotherAreForgottenWithTheirItems) {
  for (int i = 0; i < 1000; ++i) {
    const std::string folder = "folder" + std::to_string(i);
    Items items;
    for (int item = 0; item < 5; ++item) items[folder + "/" + std::to_string(item)] = "SYNCED";
    openWindow(folder, items);
    EXPECT_EQ(FakeFileManager::keptItems(), 5u);
    if (i % 50 == 0) ASSERT_TRUE(waitForEmblem(folder + "/4", SYNCED));
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

TEST_F(PluginInference, ItemsOfAFolderThatNoWindowShowsGetBadgesAndChangesAsLongAsTheyAreShownAndNoLonger) {
  ASSERT_TRUE(appears("branch/a"));
  EXPECT_TRUE(changes("branch/a", "PENDING"));
  // While the items are shown, every test finds them.
  ASSERT_TRUE(runUntil([&] { return manager.redraws(path("branch/a")) >= 5; }));
  EXPECT_THAT(extension->observed, ElementsAre(url("branch")));
  EXPECT_EQ(manager.emblem(path("branch/a")), PENDING);
  EXPECT_EQ(asked(), 1u);
  manager.hide(path("branch/a"));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(FakeFileManager::keptItems(), 0u);
}

TEST_F(PluginInference, ALargeBranchOfWhichOneItemIsStillShownStaysObserved) {
  const auto name = [](int item) { return "branch/" + std::to_string(item); };
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(appears(name(i)));
  for (int i = 0; i < 200; ++i) manager.hide(path(name(i)));
  manager.show(path(name(77)));
  const auto before = manager.redraws(path(name(77)));
  EXPECT_TRUE(runUntil([&] { return manager.redraws(path(name(77))) >= before + 3; }));
  EXPECT_THAT(extension->observed, ElementsAre(url("branch")));
}

TEST_F(PluginInference, AFolderThatAWindowReportsInTimeIsNotInferred) {
  makePlugin({.beforeInferring = std::chrono::seconds(60)});
  extension->badges[url("a")] = "SYNCED";
  manager.show(path("a"));
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(extension->observed.size(), 1u);
  closeWindow();
}

TEST_F(PluginInference, AWindowThatReportsLateTakesTheInferredFolderOver) {
  ASSERT_TRUE(appears("a"));
  manager.plugin->folderShown(root);
  openObserved("", 2);
  EXPECT_EQ(asked(), 1u);
  manager.plugin->folderHidden(root);
  manager.hide(path("a"));
  closeWindow();
}

TEST_F(PluginInference, ABranchThatWasAWindowsFolderTooStaysObserved) {
  ASSERT_TRUE(appears("branch/a"));
  manager.plugin->folderShown(path("branch"));
  manager.plugin->folderHidden(path("branch"));  // the tree still shows it
  ASSERT_TRUE(runUntil([&] { return asked() == 2; }));
  EXPECT_TRUE(changes("branch/a", "PENDING"));
}

TEST_F(PluginInference, TheFoldersAboveAWindowsFolderAreNotTakenToBeOnScreen) {
  manager.plugin->folderShown(path("a/b/c"));
  list({"a/b/c", "a/b", "a"});
  ASSERT_TRUE(appears("other/x"));
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
