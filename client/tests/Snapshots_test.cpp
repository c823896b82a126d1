// The badges of a folder on screen, which the extension sends by itself: nothing is asked for, nothing is drawn twice.
#include <algorithm>
#include <string>

#include "PluginTest.hpp"
#include "client/FoldersOnScreen.hpp"
#include "dbus/Interface.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PluginSnapshots : public PluginTest {
 protected:
  PluginSnapshots() {
    makePlugin(std::chrono::minutes(1));
    startNewExtension();
  }

  /// Folders are `expected` for so long.
  void makePlugin(milliseconds expected) {
    PluginTest::makePlugin({.beforeInferring = milliseconds(20),
                            .firstRetry = milliseconds(20),
                            .lastRetry = milliseconds(160),
                            .unobservedRefresh = milliseconds(50),
                            .leaving = milliseconds(50),
                            .expecting = expected});
  }

  void startNewExtension() {
    startExtension();
    extension->interfaceVersion = dbus::INTERFACE_VERSION;
    extension->badges = {{url("a"), "SYNCED"}, {url("b"), "PENDING"}, {url("none"), ""}};
  }

  void list() {
    for (const char* name : {"a", "b", "none"}) manager.show(path(name));
  }

  /// A window shows the root with these items, whose badges are known.
  void open() {
    manager.plugin->folderShown(root);
    list();
    ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", PENDING));
  }

  /// A window shows the root with so many items that with the next question those that are gone are forgotten.
  void openLarge() {
    const std::size_t count = 1024;
    extension->badges.clear();
    for (std::size_t i = 0; i < count; ++i) extension->badges[url(std::to_string(i))] = "SYNCED";
    manager.plugin->folderShown(root);
    for (std::size_t i = 1; i < count; ++i) manager.show(path(std::to_string(i)));
    ASSERT_TRUE(runUntil([&] { return manager.withEmblem(SYNCED) == count - 1; }));
    manager.show(path("0"));
    ASSERT_EQ(manager.emblem(path("0")), SYNCED);
  }

  void remove(const std::string& name) {
    manager.hide(path(name));
    manager.goneFor.insert(path(name));
  }

  /// Whatever the extension has sent before has been taken in.
  void waitForAll() {
    extension->sendFolderBadges(url(""), {{url("last"), "SKIPPED"}});
    ASSERT_TRUE(runUntil([&] {
      manager.hide(path("last"));
      manager.show(path("last"));
      return manager.emblem(path("last")) == SKIPPED;
    }));
  }

  std::size_t redraws() const {
    std::size_t sum = 0;
    for (const char* name : {"a", "b", "none"}) sum += manager.redraws(path(name));
    return sum;
  }
};

TEST_F(PluginSnapshots, AFolderIsOneRequestAndNoItemIsAskedFor) {
  open();
  EXPECT_EQ(manager.emblem(path("none")), "");
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
  EXPECT_EQ(extension->count("RequestSnapshot " + url("")), 1u);
  EXPECT_EQ(manager.redraws(path("a")), 1u);
  EXPECT_EQ(manager.redraws(path("none")), 0u) << "it was right";
}

TEST_F(PluginSnapshots, ItemsThatComeAfterTheSnapshotAreAnsweredAtOnceAndNeverDrawnAgain) {
  const std::size_t count = 10'000;
  extension->badges.clear();
  for (std::size_t i = 0; i < count; ++i) extension->badges[url(std::to_string(i))] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("0"));
  ASSERT_TRUE(waitForEmblem("0", SYNCED));
  ASSERT_TRUE(runUntil([&] {
    manager.show(path(std::to_string(count - 1)));
    return manager.emblem(path(std::to_string(count - 1))) == SYNCED;
  }));
  settle();
  std::size_t drawnAgain = 0;
  for (std::size_t i = 1; i + 1 < count; ++i) {
    manager.show(path(std::to_string(i)));
    EXPECT_EQ(manager.emblem(path(std::to_string(i))), SYNCED);
    drawnAgain += manager.redraws(path(std::to_string(i)));
  }
  settle();
  for (std::size_t i = 1; i + 1 < count; ++i) drawnAgain += manager.redraws(path(std::to_string(i)));
  EXPECT_EQ(drawnAgain, 0u);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, ASnapshotMayComeInManyMessages) {
  extension->itemsASignal = 1;
  for (int i = 0; i < 50; ++i) extension->badges[url(std::to_string(i))] = "SKIPPED";
  open();
  for (int i = 0; i < 50; ++i) manager.show(path(std::to_string(i)));
  EXPECT_TRUE(runUntil([&] { return manager.withEmblem(SKIPPED) == 50; }));
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewInALargeFolderHasItsBadge) {
  openLarge();
  remove("0");
  manager.show(path("0"));
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewInALargeFolderHasItsBadgeWhileTheExtensionIsAway) {
  openLarge();
  extension.reset();
  settle();
  remove("0");
  manager.show(path("0"));
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
  startNewExtension();
  EXPECT_TRUE(waitForEmblem("0", ""));
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewWithinASnapshotLosesItsBadgeWhereTheSnapshotHasNone) {
  openLarge();
  remove("0");
  extension->sendFolderBadges(url(""), {{url("1"), "SKIPPED"}}, dbus::SNAPSHOT_BEGINS);
  ASSERT_TRUE(waitForEmblem("1", SKIPPED)) << "the file manager asks for it";
  manager.show(path("0"));
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  EXPECT_TRUE(waitForEmblem("0", ""));
}

TEST_F(PluginSnapshots, ChangesFollowInTheSameStream) {
  open();
  extension->setBadge(url("a"), "SKIPPED");
  extension->setBadge(url("b"), "");
  extension->setBadge(url("none"), "SYNCED");
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_TRUE(waitForEmblem("b", ""));
  EXPECT_TRUE(waitForEmblem("none", SYNCED));
}

TEST_F(PluginSnapshots, AChangeOfAnItemThatIsNotShownYetIsThereWhenItIs) {
  open();
  extension->setBadge(url("late"), "SKIPPED");
  extension->setBadge(url("gone"), "SKIPPED");
  extension->setBadge(url("gone"), "");
  waitForAll();
  manager.show(path("late"));
  manager.show(path("gone"));
  EXPECT_EQ(manager.emblem(path("late")), SKIPPED);
  EXPECT_EQ(manager.emblem(path("gone")), "");
}

TEST_F(PluginSnapshots, AfterTheSnapshotAnItemWithoutABadgeIsKnownToHaveNone) {
  open();
  manager.show(path("new"));
  waitForAll();
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
  EXPECT_EQ(manager.redraws(path("new")), 0u);
  extension->setBadge(url("new"), "PENDING");
  EXPECT_TRUE(waitForEmblem("new", PENDING));
}

TEST_F(PluginSnapshots, OfAnotherSnapshotOnlyTheDifferencesAreDrawn) {
  open();
  extension->badges = {{url("a"), "SYNCED"}, {url("none"), "SKIPPED"}};
  const auto before = manager.redraws(path("a"));
  extension->sendSnapshot(url(""));
  EXPECT_TRUE(waitForEmblem("b", "")) << "it was not named";
  EXPECT_TRUE(waitForEmblem("none", SKIPPED));
  EXPECT_EQ(manager.redraws(path("a")), before);
}

TEST_F(PluginSnapshots, NothingIsDrawnAgainWhenTheExtensionIsBackAndNothingHasChanged) {
  open();
  const auto before = redraws();
  extension.reset();
  settle();
  startNewExtension();
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 1; }));
  waitForAll();
  EXPECT_EQ(redraws(), before);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, WhatChangedWhileTheExtensionWasAwayIsDrawnAgainAndNothingElse) {
  open();
  const auto before = redraws();
  extension.reset();
  settle();
  startNewExtension();
  extension->badges.erase(url("b"));
  ASSERT_TRUE(waitForEmblem("b", ""));
  waitForAll();
  EXPECT_EQ(redraws(), before + 1);
}

TEST_F(PluginSnapshots, AFolderThatComesBackShowsItsLastEmblemsAndLosesThoseThatAreNoMore) {
  open();
  extension->setBadge(url("unseen"), "SKIPPED");
  waitForAll();
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  EXPECT_THAT(extension->streams, IsEmpty());
  extension->sendsSnapshots = false;
  extension->badges = {{url("a"), "SYNCED"}};
  manager.plugin->folderShown(root);
  list();
  manager.show(path("unseen"));
  EXPECT_EQ(manager.emblem(path("b")), PENDING);
  EXPECT_EQ(manager.emblem(path("unseen")), SKIPPED);
  ASSERT_TRUE(runUntil([&] { return extension->streams.size() == 1; }));
  extension->sendSnapshot(url(""));
  EXPECT_TRUE(waitForEmblem("b", ""));
  EXPECT_TRUE(waitForEmblem("unseen", ""));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginSnapshots, AFolderThatIsLeftBeforeItsItemsComeHasNoEmblemTheNextTimeIfItsSnapshotHadNone) {
  open();
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  extension->badges.clear();
  manager.plugin->folderShown(root);
  manager.plugin->menu({path("a")});
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges > 0; })) << "the snapshot came before";
  settle();
  manager.plugin->folderHidden(root);
  extension->sendsSnapshots = false;
  manager.plugin->folderShown(root);
  list();
  EXPECT_EQ(manager.emblem(path("a")), "");
}

TEST_F(PluginSnapshots, ATabThatComesToTheFrontRedrawsWhatHasChangedAndNothingElse) {
  manager.plugin->folderOpened(root);
  open();
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  const auto before = redraws();
  extension->badges[url("a")] = "SKIPPED";
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForEmblem("a", SKIPPED));
  waitForAll();
  EXPECT_EQ(redraws(), before + 1);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, WhatASnapshotThatWasLeftBehindSaysIsIgnored) {
  extension->sendsSnapshots = false;
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] { return extension->streams.size() == 1; }));
  const auto stream = extension->streams[url("")];
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  manager.plugin->folderShown(root);
  list();
  ASSERT_TRUE(runUntil([&] { return extension->streams.contains(url("")); }));
  const auto next = std::exchange(extension->streams[url("")], stream);
  EXPECT_NE(stream, next);
  extension->badges[url("b")] = "SKIPPED";
  extension->sendSnapshot(url(""));
  extension->streams[url("")] = next;
  extension->badges[url("b")] = "PENDING";
  extension->sendSnapshot(url(""));
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_EQ(manager.redraws(path("b")), 1u);
}

TEST_F(PluginSnapshots, TwoWindowsOnOneFolderHaveOneStream) {
  manager.plugin->folderShown(root);
  open();
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(1));
  extension->setBadge(url("a"), "SKIPPED");
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_EQ(extension->count("RequestSnapshot"), 1u);
}

// --- Where there is none --------------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, AFolderOfWhichThereIsNoSnapshotHasItsItemsAskedFor) {
  extension->sendsSnapshots = false;
  manager.plugin->folderShown(root);
  list();
  ASSERT_TRUE(runUntil([&] { return extension->streams.size() == 1; }));
  extension->sendFolderBadges(url(""), {}, dbus::NO_SNAPSHOT);
  extension->streams.clear();
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", PENDING));
  extension->setBadge(url("a"), "SKIPPED");
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  extension->badges[url("new")] = "PENDING";
  manager.show(path("new"));
  EXPECT_TRUE(waitForEmblem("new", PENDING));
}

TEST_F(PluginSnapshots, AnExtensionThatRefusesThemIsAskedForItems) {
  for (const char* error : {"Failed", "org.freedesktop.DBus.Error.UnknownMethod", "org.example.Unheard"}) {
    extension->refusals["RequestSnapshot"] = error;
    const std::string folder = std::string("folder ") + error;
    extension->badges[url(folder + "/a")] = "SYNCED";
    manager.plugin->folderShown(path(folder));
    manager.show(path(folder + "/a"));
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    EXPECT_EQ(extension->count("RequestSnapshot " + url(folder)), 1u) << error;
  }
}

TEST_F(PluginSnapshots, AnExtensionThatIsBusyIsAskedForThemAgain) {
  for (const char* error : {"Busy", "org.freedesktop.DBus.Error.LimitsExceeded"}) {
    extension->refusals["RequestSnapshot"] = error;
    const std::string folder = std::string("folder ") + error;
    extension->badges[url(folder + "/a")] = "SYNCED";
    manager.plugin->folderShown(path(folder));
    manager.show(path(folder + "/a"));
    ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot " + url(folder)) >= 3; })) << error;
    extension->refusals.clear();
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    EXPECT_THAT(extension->badgeRequests, IsEmpty()) << error;
  }
}

TEST_F(PluginSnapshots, AFolderWithoutAPlaceIsAskedForUntilItHasOneAndHasItsSnapshotThen) {
  extension->places = 0;
  manager.plugin->folderShown(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_FALSE(extension->badgeRequests.empty());
  extension->badges[url("a")] = "SKIPPED";  // no signal
  ASSERT_TRUE(waitForEmblem("a", SKIPPED));
  extension->places = 1;
  ASSERT_TRUE(runUntil([&] { return extension->streams.size() == 1; }));
  waitForAll();
  extension->badgeRequests.clear();
  extension->setBadge(url("a"), "PENDING");
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, TheItemsOfAFolderThatNoWindowReportsAreAskedFor) {
  extension->badges[url("branch/x")] = "SYNCED";
  manager.show(path("branch/x"));
  EXPECT_TRUE(waitForEmblem("branch/x", SYNCED));
  EXPECT_EQ(extension->count("RequestSnapshot"), 0u) << "it may be one of a search's results";
  manager.plugin->folderShown(path("branch"));
  EXPECT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 1; }));
}

// --- Ahead of the file manager --------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, AnExpectedFolderHasItsBadgesBeforeItIsShown) {
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(runUntil([&] { return extension->streams.size() == 1; }));
  waitForAll();
  manager.plugin->folderShown(root);
  list();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.emblem(path("b")), PENDING);
  settle();
  EXPECT_EQ(redraws(), 0u);
  EXPECT_EQ(extension->count("BeginObserving"), 1u) << "the same goes on";
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainIsLeft) {
  makePlugin(milliseconds(200));
  manager.plugin->folderShown(path("other"));
  ASSERT_TRUE(waitForObserved(1)) << "the extension answers";
  const auto ended = [&] { return extension->count("EndObserving " + url("")); };
  manager.plugin->folderExpected(root);
  EXPECT_TRUE(runUntil([&] { return ended() == 1; }));
  manager.plugin->folderOpened(root);  // in the background
  manager.plugin->folderExpected(root);
  EXPECT_TRUE(runUntil([&] { return ended() == 2; }));
  manager.plugin->folderExpected(root);
  manager.plugin->folderShown(root);
  pass(milliseconds(600));
  EXPECT_EQ(ended(), 2u) << "it is shown";
  EXPECT_EQ(std::count(extension->calls.begin(), extension->calls.end(), "BeginObserving " + url("")), 3);
}

TEST_F(PluginSnapshots, ItemsOfAFolderThatIsExpectedInVainKeepTheirEmblems) {
  makePlugin(milliseconds(200));
  manager.plugin->folderExpected(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  pass(milliseconds(600));
  extension->setBadge(url("a"), "SKIPPED");
  EXPECT_TRUE(waitForEmblem("a", SKIPPED)) << "somebody shows them: it is observed on";
  extension.reset();
  startNewExtension();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(extension->count("RequestSnapshot"), 0u) << "its items are asked for, as those of any inferred folder";
}

TEST_F(PluginSnapshots, OfFoldersThatAreExpectedInVainNoMoreAreRememberedThanOfThoseThatWereShown) {
  makePlugin(milliseconds(500));
  manager.plugin->folderShown(path("other"));
  ASSERT_TRUE(waitForObserved(1)) << "the extension answers";
  constexpr std::size_t COUNT = client::LeftFolders::MOST_FOLDERS + 1;
  for (std::size_t i = 0; i < COUNT; ++i) {
    extension->badges[url(std::to_string(i) + "/x")] = "SYNCED";
    manager.plugin->folderExpected(path(std::to_string(i)));
  }
  ASSERT_TRUE(runUntil([&] { return extension->count("EndObserving") == COUNT; }));
  for (std::size_t i = 0; i < COUNT; ++i) {
    manager.plugin->folderShown(path(std::to_string(i)));
    manager.show(path(std::to_string(i) + "/x"));
  }
  EXPECT_LE(manager.withEmblem(SYNCED), client::LeftFolders::MOST_FOLDERS);
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainJustAfterItWasLeftIsForgotten) {
  makePlugin(milliseconds(200));
  manager.plugin->folderOpened(root);
  open();
  for (const char* name : {"a", "b", "none"}) manager.hide(path(name));
  manager.plugin->folderHidden(root);
  manager.plugin->folderClosed(root);
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(runUntil([&] { return extension->count("BeginObserving") == 2; }));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
  EXPECT_EQ(manager.redraws(path("none")), 1u) << "so that the file manager asks when it comes back";
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedJustAfterItWasLeftIsObservedUntilItIsShown) {
  makePlugin(milliseconds(60'000));
  manager.plugin->folderOpened(root);
  open();
  manager.plugin->folderHidden(root);
  manager.plugin->folderClosed(root);
  manager.plugin->folderExpected(root);
  pass(milliseconds(200));  // four times as long as its items are kept
  manager.plugin->folderOpened(root);
  manager.plugin->folderShown(root);
  extension->setBadge(url("a"), "SKIPPED");
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_EQ(extension->count("BeginObserving"), 2u) << "the same goes on";
}

TEST_F(PluginSnapshots, ItemsOfAFolderThatIsExpectedInVainAreAskedForIfTheExtensionIsTooBusyForItsSnapshot) {
  makePlugin(milliseconds(500));
  extension->refusals["RequestSnapshot"] = "Busy";
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") > 0; }));
  list();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginSnapshots, ItemsAreAskedForIfTheirSnapshotIsRefusedOnceTheirFolderIsExpectedNoMore) {
  makePlugin(milliseconds(200));
  extension->hold("RequestSnapshot");
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(runUntil([&] { return extension->heldCalls("RequestSnapshot") > 0; }));
  list();
  pass(milliseconds(600));
  extension->refusals["RequestSnapshot"] = "Busy";
  extension->release("RequestSnapshot");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainIsObservedAsLongAsItsItemsAreShownAndNoLonger) {
  PluginTest::makePlugin(
      {.beforeInferring = milliseconds(20), .inferredFor = milliseconds(400), .expecting = milliseconds(300)});
  manager.plugin->folderExpected(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  ASSERT_TRUE(runUntil([&] { return manager.redraws(path("a")) >= 4; })) << "every test finds its items";
  EXPECT_EQ(extension->count("EndObserving"), 0u);
  for (const char* name : {"a", "b", "none"}) manager.hide(path(name));
  ASSERT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(extension->count("EndObserving"), 1u);
}

TEST_F(PluginSnapshots, AnInferredFolderWhoseItemsAreGoneIsLeftThoughItIsExpected) {
  PluginTest::makePlugin(
      {.beforeInferring = milliseconds(20), .inferredFor = milliseconds(400), .expecting = std::chrono::minutes(10)});
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  manager.plugin->folderExpected(root);
  manager.plugin->folderExpected(path("other"));
  for (const char* name : {"a", "b", "none"}) manager.hide(path(name));
  ASSERT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
  EXPECT_TRUE(waitForObserved(1));
  EXPECT_THAT(extension->observed, ElementsAre(url("other")));
  EXPECT_EQ(extension->count("EndObserving"), 1u);
}

// --- What makes no sense --------------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, WhatMakesNoSenseIsIgnored) {
  open();
  const auto stream = extension->streams[url("")];
  const auto send = [&](GVariant* values) { extension->send(dbus::INTERFACE, "FolderBadges", values); };
  const auto bytes = [](const std::string& text) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), 1);
  };
  send(g_variant_new("(tys@ay)", stream + 7, 3, "a", bytes("\1")));
  send(g_variant_new("(tys@ay)", G_GUINT64_CONSTANT(0), 3, "a", bytes("\1")));
  send(g_variant_new("(tys@ay)", stream, 0, "none", bytes("\x09")));
  send(g_variant_new("(tys@ay)", stream, 0, "x//y/", bytes("\1\1\1\1\1\1\1")));
  send(g_variant_new("(tys@ay)", stream, 0, "", bytes("\1\1\1")));
  send(g_variant_new("(tys@ay)", stream, 0, "none/none/none", bytes("")));
  send(g_variant_new("(ty)", stream, 3));
  send(g_variant_new("(s)", "text"));
  extension->setBadge(url("b"), "SKIPPED");
  EXPECT_TRUE(waitForEmblem("b", SKIPPED));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.emblem(path("none")), "");
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginSnapshots, BadgesThatAreTooManyToKeepAreAskedForOnceMore) {
  open();
  const auto before = extension->count("RequestSnapshot");
  std::string names(200'000, '/');
  std::string badges(names.size(), '\1');
  extension->badges[url("a")] = "SKIPPED";  // and the change is lost
  extension->send(dbus::INTERFACE, "FolderBadges",
                  g_variant_new("(tys@ay)", extension->streams[url("")], 0, names.c_str(),
                                g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, badges.data(), badges.size(), 1)));
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_EQ(extension->count("RequestSnapshot"), before + 1);
}

TEST_F(PluginSnapshots, MoreItemsThanASnapshotHasAreNotKept) {
  open();
  extension->sendsSnapshots = false;
  for (int message = 0; message < 11; ++message) {
    FakeExtension::Changes items;
    for (int i = 0; i < 5'000; ++i) items.emplace_back(url(std::to_string(message * 5'000 + i)), "SKIPPED");
    extension->sendFolderBadges(url(""), items);
  }
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 2; }));
  extension->sendFolderBadges(url(""), {}, dbus::NO_SNAPSHOT);
  extension->streams.clear();
  EXPECT_TRUE(runUntil([&] { return !extension->badgeRequests.empty(); }));
  EXPECT_EQ(extension->count("RequestSnapshot"), 2u);
}

TEST_F(PluginSnapshots, MoreBytesThanASnapshotHasAreNotKept) {
  open();
  extension->sendsSnapshots = false;
  const std::string prefix(240, 'n');
  for (int message = 0; message < 5; ++message) {
    FakeExtension::Changes items;
    for (int i = 0; i < 4'000; ++i) items.emplace_back(url(prefix + std::to_string(message * 4'000 + i)), "SKIPPED");
    extension->sendFolderBadges(url(""), items);
  }
  EXPECT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 2; }));
}

TEST_F(PluginSnapshots, ANameThatNoItemHasIsNotKept) {
  open();
  const std::string name(5'000, 'n');
  extension->sendFolderBadges(url(""), {{url(name), "SYNCED"}, {url(".."), "SYNCED"}});
  waitForAll();
  manager.show(path(name));
  EXPECT_EQ(manager.emblem(path(name)), "");
}

TEST_F(PluginSnapshots, ASnapshotThatEndsAfterTooManyItemsTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  for (int message = 0; message < 11; ++message) {
    FakeExtension::Changes items;
    const bool isLast = message == 10;  // with one too many
    for (int i = 0; i < (isLast ? 1 : 5'000); ++i)
      items.emplace_back(url(std::to_string(message * 5'000 + i)), "SKIPPED");
    extension->sendFolderBadges(url(""), items,
                                message == 0 ? dbus::SNAPSHOT_BEGINS
                                : isLast     ? dbus::SNAPSHOT_ENDS
                                             : 0);
  }
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 2; }));
  waitForAll();
  EXPECT_EQ(redraws(), before);
}

TEST_F(PluginSnapshots, SnapshotsThatNeverEndAreNotGathered) {
  open();
  for (int message = 0; message < 12; ++message) {
    FakeExtension::Changes items;
    for (int i = 0; i < 5'000; ++i) items.emplace_back(url(std::to_string(message * 5'000 + i)), "SKIPPED");
    extension->sendFolderBadges(url(""), items, dbus::SNAPSHOT_BEGINS);
  }
  waitForAll();
  manager.show(path("0"));
  EXPECT_EQ(manager.emblem(path("0")), "");
  manager.show(path("59999"));
  EXPECT_EQ(manager.emblem(path("59999")), SKIPPED) << "of the last one";
}

TEST_F(PluginSnapshots, ASnapshotOfWhichAPartIsMissingTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {{url("other"), "SYNCED"}}, dbus::SNAPSHOT_BEGINS);
  const std::string names(20'001, '/');  // too many: they are not read
  const std::string badges(names.size(), '\1');
  extension->send(dbus::INTERFACE, "FolderBadges",
                  g_variant_new("(tys@ay)", extension->streams[url("")], 0, names.c_str(),
                                g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, badges.data(), badges.size(), 1)));
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 2; }));
  waitForAll();
  EXPECT_EQ(redraws(), before);
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginSnapshots, AnEndWithoutABeginningTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  waitForAll();
  EXPECT_EQ(redraws(), before);
}

TEST_F(PluginSnapshots, AnExtensionThatEndsWithinASnapshotIsFollowedByOneThatSendsItWhole) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {{url("b"), "SKIPPED"}}, dbus::SNAPSHOT_BEGINS);
  ASSERT_TRUE(waitForEmblem("b", SKIPPED));
  extension.reset();
  startNewExtension();
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  waitForAll();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(redraws(), before + 2) << "both times of that item";
}

TEST_F(PluginSnapshots, AnExtensionThatEndsBeforeItsSnapshotTakesNoEmblemAwayThatIsNotYetShown) {
  open();
  extension->setBadge(url("unseen"), "SKIPPED");
  waitForAll();
  extension.reset();
  startNewExtension();
  extension->sendsSnapshots = false;
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") == 1; }));
  extension.reset();
  settle();
  manager.show(path("unseen"));
  EXPECT_EQ(manager.emblem(path("unseen")), SKIPPED);
}

}  // namespace
}  // namespace vornet::test
